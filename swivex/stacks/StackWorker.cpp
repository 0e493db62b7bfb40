#include "swivex/stacks/StackWorker.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <climits>

#include "swivex/stacks/Confinement.h"
#include "swivex/stacks/ModuleFiles.h"
#include "swivex/stacks/ThreadCollector.h"
#include "swivex/stacks/Unwinder.h"

namespace quorvix::swivex::stacks {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kMoreBytes = 128 << 20;
constexpr int kFirstInherited = 3;

[[noreturn]] void end(int status) {
    ::syscall(SYS_exit_group, status);
    __builtin_unreachable();
}

// The process that it was copied from has handlers for faults and may block signals: here a fault just ends it.
void forgetSignals() {
    struct sigaction byDefault {};
    byDefault.sa_handler = SIG_DFL;
    for (int signal = 1; signal < NSIG; ++signal) ::sigaction(signal, &byDefault, nullptr);
    sigset_t none;
    ::sigemptyset(&none);
    ::pthread_sigmask(SIG_SETMASK, &none, nullptr);
}

// It ends with its caller: a thread that it had stopped goes on then.
void endWithCaller(pid_t caller) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0);
    if (::getppid() != caller) end(1);
}

// Should the caller not come to kill it: later than it would.
constexpr std::chrono::milliseconds kGrace{200};

void endAt(Clock::time_point deadline) {
    const auto left = std::max(deadline - Clock::now(), Clock::duration(std::chrono::milliseconds(1)));
    const auto us = std::chrono::duration_cast<std::chrono::microseconds>(left).count();
    itimerval timer{};
    timer.it_value.tv_sec = us / 1'000'000;
    timer.it_value.tv_usec = us % 1'000'000;
    ::setitimer(ITIMER_REAL, &timer, nullptr);
}

void confine(pid_t caller) {
    ::prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
    limitMemory(kMoreBytes);
    giveUpRights();
    // Becoming somebody else has cleared it.
    endWithCaller(caller);
    forbidCalls();
}

}  // namespace

void runStackWorker(const StackRequest& request, RecordRegion& region, pid_t caller) {
    forgetSignals();
    endWithCaller(caller);
    endAt(request.deadline + kGrace);
    ::syscall(SYS_close_range, kFirstInherited, UINT_MAX, 0);

    // Half of the time to take what can't be had later, and a rest to be done with all by itself.
    const Clock::time_point begin = Clock::now();
    const Clock::duration time = request.deadline - begin;
    ThreadCollector collector(
        request.pid, {.deadline = begin + time / 2, .kernelSymbols = request.kernelSymbols, .route = request.route});
    collector.collect();
    CaptureWriter writer(region);
    writer.writeSummary(collector.summary());
    std::vector<CapturedThread>& threads = collector.threads();
    for (std::uint32_t i = 0; i < threads.size(); ++i) {
        ThreadStack stack = threads[i].stack;
        if (threads[i].hasRegisters) {
            stack.user.push_back({threads[i].registers[kInstructionPointer], -1});
            stack.problem = "not unwound: its files took too long, or did harm";
        }
        writer.writeThread(i, stack);
    }
    std::vector<ModuleFile> modules = openModuleFiles(collector.memoryId(), collector.map(), begin + time * 6 / 10);
    confine(caller);

    Unwinder unwinder(request.pid, modules);
    std::size_t written = 0;
    for (std::uint32_t i = 0; i < threads.size(); ++i) {
        if (!threads[i].hasRegisters) continue;
        unwinder.unwind(threads[i], begin + time * 9 / 10);
        while (written < unwinder.modules().size()) writer.writeModule(unwinder.modules()[written++]);
        writer.writeFrames(i, threads[i].stack);
    }
    writer.writeEnd();
    end(0);
}

}  // namespace quorvix::swivex::stacks
