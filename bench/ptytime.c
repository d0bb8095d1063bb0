/* ptytime: runs one command on a pseudo-terminal, types its answers, and
 * appends its times to a file: the stopwatch of scripts/bench.sh for the
 * import, which reads its pass phrase from the terminal.
 *
 *   ptytime OUT_FILE [--expect TEXT --send TEXT]... -- PROGRAM [ARG]...
 *
 * Appends one line "WALL_MS CPU_MS MAXRSS_KB" like timeit. The terminal is
 * opened before the clock starts; the clock runs from just before the fork
 * to just after the program has been reaped, so it covers the program's
 * whole life and nothing of this stopwatch's own start. Each answer is typed
 * at once when its text has appeared (in TEXT, "\n" stands for a line feed);
 * what the program writes is copied to standard output. Exits with the
 * program's status (128 + signal number when it was killed); 1 when an
 * expected text never came, 127 when the program could not be started
 * (nothing is written then). */
#define _DEFAULT_SOURCE
#include <errno.h>
#include <poll.h>
#include <pty.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "stopwatch.h"

#define MAX_STEPS 8
#define SEEN_SIZE 65536

struct Step {
    char expect[256];
    char send[256];
};

/* Copies text into out (size bytes), "\n" becoming a line feed. */
static int Unescape(const char* text, char* out, size_t size)
{
    size_t n = 0;
    for (; *text != '\0'; ++text) {
        if (n + 1 >= size) {
            return -1;
        }
        if (text[0] == '\\' && text[1] == 'n') {
            out[n++] = '\n';
            ++text;
        } else {
            out[n++] = *text;
        }
    }
    out[n] = '\0';
    return 0;
}

static int Usage(void)
{
    fprintf(stderr, "usage: ptytime OUT_FILE [--expect TEXT --send TEXT]... -- PROGRAM [ARG]...\n");
    return 2;
}

int main(int argc, char* argv[])
{
    static struct Step steps[MAX_STEPS];
    static char seen[SEEN_SIZE];
    size_t stepCount = 0;
    int i = 2;
    for (; i + 3 < argc && strcmp(argv[i], "--expect") == 0 && strcmp(argv[i + 2], "--send") == 0; i += 4) {
        if (stepCount == MAX_STEPS || Unescape(argv[i + 1], steps[stepCount].expect, sizeof(steps[0].expect)) != 0 ||
            Unescape(argv[i + 3], steps[stepCount].send, sizeof(steps[0].send)) != 0) {
            return Usage();
        }
        ++stepCount;
    }
    if (argc < 3 || i + 1 >= argc || strcmp(argv[i], "--") != 0) {
        return Usage();
    }
    char** program = argv + i + 1;
    FILE* out = fopen(argv[1], "a");
    if (out == NULL) {
        fprintf(stderr, "ptytime: %s: %s\n", argv[1], strerror(errno));
        return 2;
    }
    int master = -1;
    int slave = -1;
    if (openpty(&master, &slave, NULL, NULL, NULL) != 0) {
        fprintf(stderr, "ptytime: openpty: %s\n", strerror(errno));
        fclose(out);
        return 127;
    }

    struct timespec start;
    struct timespec end;
    clock_gettime(CLOCK_MONOTONIC, &start);
    const pid_t child = fork();
    if (child < 0) {
        fprintf(stderr, "ptytime: fork: %s\n", strerror(errno));
        fclose(out);
        return 127;
    }
    if (child == 0) {
        close(master);
        if (setsid() < 0 || ioctl(slave, TIOCSCTTY, 0) != 0 || dup2(slave, 0) < 0 || dup2(slave, 1) < 0 ||
            dup2(slave, 2) < 0) {
            _exit(127);
        }
        if (slave > 2) {
            close(slave);
        }
        execvp(program[0], program);
        _exit(127);
    }
    close(slave);

    /* Everything after the previous match is searched for the next text. */
    size_t seenLength = 0;
    size_t searchFrom = 0;
    size_t step = 0;
    for (;;) {
        struct pollfd entry = {master, POLLIN, 0};
        if (poll(&entry, 1, 120000) <= 0) {
            fprintf(stderr, "\nptytime: the program took too long; stopping it\n");
            kill(child, SIGKILL);
            break;
        }
        char buffer[4096];
        const ssize_t count = read(master, buffer, sizeof(buffer));
        if (count <= 0) {
            break; /* every holder of the terminal has closed it */
        }
        fwrite(buffer, 1, (size_t)count, stdout);
        if (seenLength + (size_t)count >= SEEN_SIZE) {
            seenLength = searchFrom = 0; /* a prompt never spans this much output */
        }
        memcpy(seen + seenLength, buffer, (size_t)count);
        seenLength += (size_t)count;
        seen[seenLength] = '\0';
        while (step < stepCount) {
            const char* at = strstr(seen + searchFrom, steps[step].expect);
            if (at == NULL) {
                break;
            }
            searchFrom = (size_t)(at - seen) + strlen(steps[step].expect);
            const size_t length = strlen(steps[step].send);
            if (write(master, steps[step].send, length) != (ssize_t)length) {
                break;
            }
            ++step;
        }
    }
    int status = 0;
    struct rusage usage;
    if (Reap("ptytime", child, &status, &usage) != 0) {
        fclose(out);
        return 127;
    }
    clock_gettime(CLOCK_MONOTONIC, &end);
    close(master);
    fflush(stdout);

    if (WIFEXITED(status) && WEXITSTATUS(status) == 127) {
        fprintf(stderr, "ptytime: %s could not be started\n", program[0]);
        fclose(out);
        return 127;
    }
    if (AppendTimes("ptytime", out, argv[1], &start, &end, &usage) != 0) {
        return 2;
    }
    if (step < stepCount) {
        fprintf(stderr, "ptytime: never saw \"%s\"\n", steps[step].expect);
        return 1;
    }
    return ExitStatusOf(status);
}
