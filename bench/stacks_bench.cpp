// Stacks of a process with 20 threads, about 30 frames each, unwinding included: by the kernel's view of threads that
// sleep, and by stopping them one by one. Needs root.

#include <fcntl.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "bench/Bench.h"
#include "swivex/Stacks.h"

namespace quorvix {
namespace {

using swivex::StackCapture;
using swivex::StackRoute;
using swivex::ThreadStack;

constexpr int kThreads = 20;
constexpr int kDepth = 24;
constexpr int kRounds = 41;

volatile bool isForEver = true;

__attribute__((noinline)) void sleepAt(int depth) {
    if (depth > 0) {
        sleepAt(depth - 1);
    } else {
        while (isForEver) pause();
    }
    asm volatile("" ::: "memory");
}

// Ended with the benchmark.
class DeepSleepers {
public:
    DeepSleepers() : pid_(fork()) {
        bench::require(pid_ >= 0, "fork");
        if (pid_ == 0) {
            for (int i = 1; i < kThreads; ++i) std::thread([] { sleepAt(kDepth); }).detach();
            sleepAt(kDepth);
        }
        usleep(300'000);  // until they sleep
    }
    ~DeepSleepers() {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    pid_t pid() const { return pid_; }

private:
    pid_t pid_;
};

StackCapture capture(pid_t pid, StackRoute route) {
    return swivex::captureStacks(pid, std::chrono::steady_clock::now() + std::chrono::seconds(2), true, route);
}

void check(const StackCapture& found) {
    bench::require(found.problem.empty(), found.problem.c_str());
    bench::require(found.threads.size() == kThreads, "all threads");
    for (const ThreadStack& thread : found.threads) {
        bench::require(thread.problem.empty(), thread.problem.c_str());
        bench::require(thread.user.size() > kDepth, "whole stacks");
    }
}

template <class Work>
double measureMs(Work&& work) {
    const double begin = bench::nowNs();
    work();
    return (bench::nowNs() - begin) / 1e6;
}

// Processor time of this process and of the children that it has waited for.
double cpuMs() {
    double us = 0;
    for (const int who : {RUSAGE_SELF, RUSAGE_CHILDREN}) {
        rusage usage{};
        getrusage(who, &usage);
        for (const timeval& time : {usage.ru_utime, usage.ru_stime}) {
            us += static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_usec);
        }
    }
    return us / 1e3;
}

// What no capture in a process of its own can do without: that process, the map, and 16 KiB of every stack.
void bareCapture(pid_t pid, const StackCapture& known) {
    const pid_t child = fork();
    if (child == 0) {
        std::array<char, 16384> text;
        const int map = open(("/proc/" + std::to_string(pid) + "/maps").c_str(), O_RDONLY | O_CLOEXEC);
        while (read(map, text.data(), text.size()) > 0) {
        }
        for (int i = 0; i < kThreads; ++i) {
            // Any memory of the process serves as well as its stacks.
            iovec local{text.data(), text.size()};
            iovec remote{reinterpret_cast<void*>(known.modules.front().start), text.size()};
            (void)!process_vm_readv(pid, &local, 1, &remote, 1, 0);
        }
        _exit(0);
    }
    bench::require(waitpid(child, nullptr, 0) == child, "waitpid");
}

// Stopping and letting go, and nothing in between.
double bareStopUs(pid_t tid) {
    bench::require(ptrace(PTRACE_SEIZE, tid, nullptr, nullptr) == 0, "PTRACE_SEIZE");
    const double begin = bench::nowNs();
    ptrace(PTRACE_INTERRUPT, tid, nullptr, nullptr);
    while (waitpid(tid, nullptr, __WALL | WNOHANG) == 0) sched_yield();
    ptrace(PTRACE_DETACH, tid, nullptr, nullptr);
    return (bench::nowNs() - begin) / 1e3;
}

void printStopped(const char* name, const StackCapture& found) {
    std::size_t stopped = 0;
    for (const ThreadStack& thread : found.threads) stopped += thread.stopped ? 1 : 0;
    std::printf("%s: %zu of %zu threads were stopped\n", name, stopped, found.threads.size());
}

void run() {
    const DeepSleepers process;
    bench::pinToOneCpu();
    const StackCapture known = capture(process.pid(), StackRoute::best);
    check(known);

    const bool isStopless = known.zeroStopProblem.empty();
    if (!isStopless) std::printf("threads are stopped: %s\n", known.zeroStopProblem.c_str());
    for (const StackRoute route : {StackRoute::best, StackRoute::stopping}) {
        const char* const name =
            route == StackRoute::best ? "stacks of 20 threads that sleep" : "stacks of 20 threads by stopping them";
        bench::Comparison comparison(name, "ms");
        std::vector<double> times;
        std::vector<double> cpuTimes;
        StackCapture found;
        for (int i = 0; i < kRounds; ++i) {
            const double cpuBefore = cpuMs();
            times.push_back(measureMs([&] { found = capture(process.pid(), route); }));
            cpuTimes.push_back(cpuMs() - cpuBefore);
            check(found);
            comparison.add(times.back(), measureMs([&] { bareCapture(process.pid(), known); }));
        }
        comparison.print(bench::Goal::none, 0);
        bench::printAbsolute(name, "ms", bench::median(times), 5);
        // On a busy machine the rest is waiting for a processor.
        bench::printAbsolute("  processor time of it", "ms", bench::median(cpuTimes), 5);
        printStopped(name, found);
    }

    bench::Comparison stops("a thread's stop, to bare stop and go", "us");
    std::vector<double> stopUs;
    for (int i = 0; i < kRounds / 4; ++i) {
        for (const ThreadStack& thread : capture(process.pid(), StackRoute::stopping).threads) {
            stopUs.push_back(static_cast<double>(thread.stopTime.count()) / 1e3);
            stops.add(stopUs.back(), bareStopUs(thread.tid));
        }
    }
    stops.print(bench::Goal::none, 0);
    bench::printAbsolute("a thread's stop, median", "us", bench::median(stopUs), 200);
}

}  // namespace
}  // namespace quorvix

int main() {
    quorvix::bench::require(geteuid() == 0, "needs root");
    quorvix::run();
    return 0;
}
