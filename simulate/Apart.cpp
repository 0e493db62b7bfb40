#include "simulate/Apart.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "simulate/Text.h"

namespace quorvix::simulate {

namespace {

// A step takes milliseconds. CPU time first: a loaded machine does not count; the other is for one that only waits.
constexpr unsigned kMostSecondsOfAStep = 300;

void armTimers(long cpuSeconds) {
    const itimerval cpu{.it_interval = {}, .it_value = {.tv_sec = cpuSeconds, .tv_usec = 0}};
    setitimer(ITIMER_PROF, &cpu, nullptr);
    alarm(kMostSecondsOfAStep);
}

void silence() {
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(nowhere, STDOUT_FILENO);
    dup2(nowhere, STDERR_FILENO);
    const rlimit none{0, 0};
    setrlimit(RLIMIT_CORE, &none);
}

}  // namespace

Ending runApart(const std::function<int(const OnProgress&)>& run, bool quiet, long mostCpuSecondsOfAStep) {
    void* const page = mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (page == MAP_FAILED) return {.failed = true, .crash = "no memory for the run"};
    auto* const shared = new (page) Progress;
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        if (quiet) silence();
        armTimers(mostCpuSecondsOfAStep);
        std::exit(run([shared, mostCpuSecondsOfAStep](const Progress& progress) {
            *shared = progress;
            armTimers(mostCpuSecondsOfAStep);
        }));
    }
    Ending ending;
    int status = 0;
    while (child > 0 && waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    ending.progress = *shared;
    munmap(page, sizeof(Progress));
    if (child < 0) {
        ending.crash = "the run could not be started";
    } else if (WIFSIGNALED(status)) {
        ending.stuck = WTERMSIG(status) == SIGPROF || WTERMSIG(status) == SIGALRM;
        ending.crash = ending.stuck ? "a step does not come to its end"
                                    : print("the process ended by signal %d", WTERMSIG(status));
    } else if (WEXITSTATUS(status) > 1) {
        ending.crash = print("the process ended with status %d", WEXITSTATUS(status));
    }
    ending.failed = !ending.crash.empty() || WEXITSTATUS(status) != 0;
    return ending;
}

}  // namespace quorvix::simulate
