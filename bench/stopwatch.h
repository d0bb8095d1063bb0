/* stopwatch.h: what the two stopwatches of scripts/bench.sh (timeit and
 * ptytime) share: reaping the timed program, and the line of times they
 * append, "WALL_MS CPU_MS MAXRSS_KB". */
#ifndef VARDO_BENCH_STOPWATCH_H
#define VARDO_BENCH_STOPWATCH_H

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>

static double Milliseconds(const struct timespec* from, const struct timespec* to)
{
    return (double)(to->tv_sec - from->tv_sec) * 1e3 + (double)(to->tv_nsec - from->tv_nsec) / 1e6;
}

static double CpuMilliseconds(const struct rusage* usage)
{
    return (double)(usage->ru_utime.tv_sec + usage->ru_stime.tv_sec) * 1e3 +
           (double)(usage->ru_utime.tv_usec + usage->ru_stime.tv_usec) / 1e3;
}

/* Waits for `child`; 0, or -1 after a message from `tool`. */
static int Reap(const char* tool, pid_t child, int* status, struct rusage* usage)
{
    while (wait4(child, status, 0, usage) < 0) {
        if (errno != EINTR) {
            fprintf(stderr, "%s: wait4: %s\n", tool, strerror(errno));
            return -1;
        }
    }
    return 0;
}

/* Appends the line of times to `out` (opened from `path`) and closes it; 0,
 * or 2 after a message from `tool`. */
static int AppendTimes(const char* tool, FILE* out, const char* path, const struct timespec* start,
                       const struct timespec* end, const struct rusage* usage)
{
    fprintf(out, "%.3f %.3f %ld\n", Milliseconds(start, end), CpuMilliseconds(usage), usage->ru_maxrss);
    if (fclose(out) != 0) {
        fprintf(stderr, "%s: %s: %s\n", tool, path, strerror(errno));
        return 2;
    }
    return 0;
}

/* The program's exit status as the stopwatch's own: 128 + the signal number
 * when it was killed. */
static int ExitStatusOf(int status)
{
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

#endif /* VARDO_BENCH_STOPWATCH_H */
