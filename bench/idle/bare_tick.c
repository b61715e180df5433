// The floor under velnord's idle tick: the system calls of one settled tick, made bare in one
// process: the host lock taken without waiting, each housekeeping folder tested for existence
// with one openat2 that follows no link, the lock let go. Run twice: woken every interval by its
// own timer, as a tick is, and back to back. Prints the processor time per tick of each, in
// nanoseconds, as the process's own clock counts it.
//
// bare-tick INTERVAL_US TICKS LOCK_FILE FOLDER...
#define _GNU_SOURCE
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

// The C library of this build may not know openat2: its call as the kernel defines it.
#ifndef SYS_openat2
#define SYS_openat2 437
#endif
struct open_how {
    unsigned long long flags;
    unsigned long long mode;
    unsigned long long resolve;
};
enum { kResolveNoMagiclinks = 0x02, kResolveNoSymlinks = 0x04 };

static double cpuNanoseconds(void) {
    struct timespec now;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return (double)now.tv_sec * 1e9 + (double)now.tv_nsec;
}

static void tick(int lock, char** folders, int count) {
    if (flock(lock, LOCK_EX | LOCK_NB) != 0) {
        return;
    }
    for (int index = 0; index < count; ++index) {
        struct open_how how = {.flags = O_PATH | O_DIRECTORY | O_CLOEXEC,
                               .resolve = kResolveNoSymlinks | kResolveNoMagiclinks};
        int folder = (int)syscall(SYS_openat2, AT_FDCWD, folders[index], &how, sizeof how);
        if (folder >= 0) {
            close(folder);
        }
    }
    flock(lock, LOCK_UN);
}

int main(int argc, char** argv) {
    if (argc < 5) {
        fputs("usage: bare-tick INTERVAL_US TICKS LOCK_FILE FOLDER...\n", stderr);
        return 64;
    }
    long interval = atol(argv[1]);
    long ticks = atol(argv[2]);
    int lock = open(argv[3], O_RDWR | O_CLOEXEC);
    if (interval <= 0 || ticks <= 0 || lock < 0) {
        perror("bare-tick");
        return 64;
    }
    char** folders = argv + 4;
    int count = argc - 4;
    struct timespec next;
    clock_gettime(CLOCK_MONOTONIC, &next);
    double began = cpuNanoseconds();
    for (long done = 0; done < ticks; ++done) {
        next.tv_nsec += interval * 1000;
        while (next.tv_nsec >= 1000000000L) {
            next.tv_nsec -= 1000000000L;
            ++next.tv_sec;
        }
        clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &next, NULL);
        tick(lock, folders, count);
    }
    double timed = (cpuNanoseconds() - began) / (double)ticks;
    began = cpuNanoseconds();
    for (long done = 0; done < ticks; ++done) {
        tick(lock, folders, count);
    }
    double backToBack = (cpuNanoseconds() - began) / (double)ticks;
    printf("timed_ns %.0f back_to_back_ns %.0f\n", timed, backToBack);
    return 0;
}
