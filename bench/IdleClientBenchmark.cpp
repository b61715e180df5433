// How long the idle-client scan takes over this machine's real process table, crowded with
// processes of other accounts, beside the same search done with pgrep.
//
// Run as root: build/bench/idle_client_benchmark [--crowd=2000]
// The crowd runs as "nobody"; a few processes run as the service account's uid but are no
// server, so they cost an argument read each and are never signalled.
#include <benchmark/benchmark.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "handler/PostgresRequestHandler.h"

extern char** environ;

namespace {

constexpr uid_t kNobody = 65534;
constexpr uid_t kServiceUid = 216;

int crowdSize = 2000;
int serviceAccountProcesses = 20;

// A child that waits, as uid, until it is killed.
pid_t spawnWaiter(uid_t uid) {
    const pid_t pid = fork();
    if (pid == 0) {
        if (setresgid(kNobody, kNobody, kNobody) != 0 || setresuid(uid, uid, uid) != 0) {
            _exit(127);
        }
        execl("/bin/sleep", "sleep", "infinity", static_cast<char*>(nullptr));
        _exit(127);
    }
    return pid;
}

class Crowd {
  public:
    Crowd() {
        for (int i = 0; i < crowdSize; ++i)
            pids_.push_back(spawnWaiter(kNobody));
        for (int i = 0; i < serviceAccountProcesses; ++i)
            pids_.push_back(spawnWaiter(kServiceUid));
    }
    ~Crowd() {
        for (pid_t pid : pids_)
            kill(pid, SIGKILL);
        for (pid_t pid : pids_)
            waitpid(pid, nullptr, 0);
    }

  private:
    std::vector<pid_t> pids_;
};

void BM_ShutDownIdleClients(benchmark::State& state) {
    velnor::postgres::PostgresRequestHandler handler;
    for (auto _ : state) {
        benchmark::DoNotOptimize(handler.shutDownIdleClients());
    }
}

void BM_Pgrep(benchmark::State& state) {
    char* const arguments[] = {const_cast<char*>("pgrep"),
                               const_cast<char*>("-u"),
                               const_cast<char*>("216"),
                               const_cast<char*>("-f"),
                               const_cast<char*>("postgres: .*idle$"),
                               nullptr};
    for (auto _ : state) {
        pid_t pid = 0;
        if (posix_spawnp(&pid, "pgrep", nullptr, nullptr, arguments, environ) != 0) {
            state.SkipWithError("pgrep could not be started");
            return;
        }
        int status = 0;
        waitpid(pid, &status, 0);
    }
}

BENCHMARK(BM_ShutDownIdleClients)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Pgrep)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        if (std::strncmp(argv[i], "--crowd=", 8) == 0)
            crowdSize = std::atoi(argv[i] + 8);
    }
    benchmark::Initialize(&argc, argv);
    if (geteuid() != 0) {
        std::fprintf(stderr, "idle_client_benchmark: run as root, to start the crowd as nobody\n");
        return 77;
    }
    const Crowd crowd;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
