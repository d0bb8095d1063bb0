/* timeit: runs one command and appends its times to a file: the stopwatch
 * of scripts/bench.sh.
 *
 *   timeit OUT_FILE PROGRAM [ARG]...
 *
 * Appends one line "WALL_MS CPU_MS MAXRSS_KB". The wall time, read from the
 * monotonic clock, runs from just before the program is spawned to just after
 * it has been reaped, so it covers the whole process: exec, library loading,
 * the work, the waits for the disk, exit. The CPU time is the user and system
 * time of the program and of the children it waited for; on a machine shared
 * with other work it moves less than the wall time. MAXRSS_KB is the largest
 * resident set of the program (or of the largest child it waited for), in
 * kilobytes. The program inherits standard input, output and error.
 * Exits with the program's status (128 + signal number when it was killed);
 * the time is written whatever that status. When the program cannot be
 * started nothing is written and the exit status is 127. */
#define _DEFAULT_SOURCE
#include <errno.h>
#include <spawn.h>
#include <stdio.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>

#include "stopwatch.h"

extern char** environ;

int main(int argc, char* argv[])
{
    if (argc < 3) {
        fprintf(stderr, "usage: timeit OUT_FILE PROGRAM [ARG]...\n");
        return 2;
    }
    FILE* out = fopen(argv[1], "a");
    if (out == NULL) {
        fprintf(stderr, "timeit: %s: %s\n", argv[1], strerror(errno));
        return 2;
    }

    struct timespec start;
    struct timespec end;
    pid_t child;
    clock_gettime(CLOCK_MONOTONIC, &start);
    const int spawned = posix_spawnp(&child, argv[2], NULL, NULL, argv + 2, environ);
    if (spawned != 0) {
        fprintf(stderr, "timeit: %s: %s\n", argv[2], strerror(spawned));
        fclose(out);
        return 127;
    }
    int status = 0;
    struct rusage usage;
    if (Reap("timeit", child, &status, &usage) != 0) {
        fclose(out);
        return 127;
    }
    clock_gettime(CLOCK_MONOTONIC, &end);

    if (AppendTimes("timeit", out, argv[1], &start, &end, &usage) != 0) {
        return 2;
    }
    return ExitStatusOf(status);
}
