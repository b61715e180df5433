// Times whole processes as a shell starts them (vfork, exec, wait), each kind in turn, round
// after round, so that every kind meets the same load. A harness in an interpreter would add its
// own cost to every figure and so bring the ratios between kinds closer to one.
//
// spawn-timer ROUNDS NAME UID PROGRAM [ARGUMENT ...] [-- NAME UID PROGRAM ...]
//   UID is the account the program runs as ("-": this one). Prints, per kind:
//   NAME MEDIAN_MS P90_MS EXIT_STATUS
// Standard output and error of the programs go to /dev/null.
#define _GNU_SOURCE
#include <fcntl.h>
#include <grp.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

enum { kMostKinds = 16 };

struct Kind {
    const char* name;
    uid_t uid;
    int asAccount;
    char** argv;
    double* took;
    int status;
};

static double nowMs(void) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (double)now.tv_sec * 1e3 + (double)now.tv_nsec / 1e6;
}

static int compare(const void* left, const void* right) {
    double a = *(const double*)left, b = *(const double*)right;
    return (a > b) - (a < b);
}

// One run of the kind: milliseconds from before the fork to after the wait.
static double runOnce(struct Kind* kind, int null) {
    double began = nowMs();
    pid_t child = vfork();
    if (child == 0) {
        if (kind->asAccount &&
            (setgroups(0, NULL) != 0 || setresgid(kind->uid, kind->uid, kind->uid) != 0 ||
             setresuid(kind->uid, kind->uid, kind->uid) != 0)) {
            _exit(126);
        }
        dup2(null, STDOUT_FILENO);
        dup2(null, STDERR_FILENO);
        execv(kind->argv[0], kind->argv);
        _exit(127);
    }
    int status = 0;
    waitpid(child, &status, 0);
    double took = nowMs() - began;
    kind->status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return took;
}

int main(int argc, char** argv) {
    if (argc < 5) {
        fprintf(stderr, "usage: spawn-timer ROUNDS NAME UID PROGRAM [ARGUMENT ...] [-- ...]\n");
        return 64;
    }
    int rounds = atoi(argv[1]);
    struct Kind kinds[kMostKinds];
    int count = 0;
    for (int index = 2; index < argc && count < kMostKinds;) {
        struct Kind* kind = &kinds[count++];
        kind->name = argv[index];
        kind->asAccount = strcmp(argv[index + 1], "-") != 0;
        kind->uid = (uid_t)atoi(argv[index + 1]);
        kind->argv = argv + index + 2;
        kind->took = calloc((size_t)rounds, sizeof(double));
        int end = index + 2;
        while (end < argc && strcmp(argv[end], "--") != 0) {
            ++end;
        }
        argv[end < argc ? end : argc] = NULL;
        index = end + 1;
    }
    int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    for (int round = 0; round < rounds; ++round) {
        for (int index = 0; index < count; ++index) {
            kinds[index].took[round] = runOnce(&kinds[index], null);
        }
    }
    for (int index = 0; index < count; ++index) {
        qsort(kinds[index].took, (size_t)rounds, sizeof(double), compare);
        printf("%s %.3f %.3f %d\n", kinds[index].name, kinds[index].took[rounds / 2],
               kinds[index].took[rounds * 9 / 10], kinds[index].status);
    }
    return 0;
}
