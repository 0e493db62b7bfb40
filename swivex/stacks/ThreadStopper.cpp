#include "swivex/stacks/ThreadStopper.h"

#include <sched.h>
#include <sys/ptrace.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <thread>

namespace quorvix::swivex::stacks {

namespace {

using std::chrono::nanoseconds;

// A thread that runs stops within microseconds; one that waits for a CPU takes as long as others have theirs, and is
// not held up meanwhile. So a share of the time that is left, which leaves some for the next.
constexpr int kShareOfRest = 4;
constexpr std::chrono::milliseconds kMostPatience{500};
// From then on the wait no longer keeps a CPU busy.
constexpr std::chrono::microseconds kSpin{300};

// As the kernel writes a stop into a wait status: the signal stands above the mark of a stop.
int stopSignal(int status) { return (status >> 8) & 0xFF; }
bool isEventStop(int status) { return (status >> 16) == PTRACE_EVENT_STOP; }

void pause(bool shortly) {
    if (shortly) {
        ::sched_yield();
        return;
    }
    const timespec moment{0, 100'000};
    ::nanosleep(&moment, nullptr);
}

const char* whyNotSeized(int error) {
    if (error == ESRCH) return "ended meanwhile";
    return error == EPERM ? "traced by another process, or not permitted to stop it" : "can't be stopped";
}

void letGo(pid_t tid, int signal) {
    ::ptrace(static_cast<__ptrace_request>(PTRACE_DETACH), tid, nullptr,
             reinterpret_cast<void*>(static_cast<long>(signal)));
}

}  // namespace

void ThreadStopper::capture(std::span<CapturedThread* const> threads) {
    if (threads.empty()) return;
    std::thread tracer([this, threads] { captureAll(threads); });
    tracer.join();
}

void ThreadStopper::captureAll(std::span<CapturedThread* const> threads) {
    for (CapturedThread* const thread : threads) {
        releaseLate();
        if (Clock::now() >= limits_.deadline) {
            thread->stack.problem = "no time left to stop it";
            continue;
        }
        captureOne(*thread);
    }
    releaseLate();
}

bool ThreadStopper::waitForStop(pid_t tid, Clock::time_point deadline, int& signal) const {
    const Clock::time_point begin = Clock::now();
    for (;;) {
        int status = 0;
        const pid_t found = ::waitpid(tid, &status, __WALL | WNOHANG);
        if (found == tid) {
            if (!WIFSTOPPED(status)) return false;  // it ended
            // It may have stopped at a signal that it still has to get.
            signal = isEventStop(status) ? 0 : stopSignal(status);
            return true;
        }
        if (found < 0) return false;
        const Clock::time_point now = Clock::now();
        if (now >= deadline) return false;
        pause(now - begin < kSpin);
    }
}

void ThreadStopper::captureOne(CapturedThread& thread) {
    const pid_t tid = thread.stack.tid;
    if (::ptrace(PTRACE_SEIZE, tid, nullptr, nullptr) != 0) {
        thread.stack.problem = whyNotSeized(errno);
        return;
    }
    const Clock::time_point begin = Clock::now();
    if (::ptrace(PTRACE_INTERRUPT, tid, nullptr, nullptr) != 0) {
        thread.stack.problem = "ended meanwhile";
        return;
    }
    int signal = 0;
    const Clock::duration patience =
        std::min<Clock::duration>((limits_.deadline - begin) / kShareOfRest, kMostPatience);
    if (!waitForStop(tid, begin + patience, signal)) {
        thread.stack.problem = "did not stop in time";
        givenUp_.push_back(tid);
        return;
    }
    thread.registers = {};
    iovec registers{thread.registers.data(), sizeof thread.registers};
    const bool hasRegisters = ::ptrace(PTRACE_GETREGSET, tid, NT_PRSTATUS, &registers) == 0;
    if (hasRegisters) {
        const std::uint64_t address = thread.registers[kStackPointer] - kBelowStackPointer;
        if (const Mapping* const mapping = map_.find(thread.registers[kStackPointer])) {
            thread.memory = memory_.copy(*mapping, std::max(address, mapping->start), limits_.mostStackBytes);
        }
    }
    letGo(tid, signal);
    thread.stack.stopTime = std::chrono::duration_cast<nanoseconds>(Clock::now() - begin);
    thread.stack.stopped = true;
    thread.hasRegisters = hasRegisters;
    thread.stack.problem = hasRegisters ? "" : "its registers can't be read";
}

void ThreadStopper::releaseLate() {
    std::erase_if(givenUp_, [](pid_t tid) {
        int status = 0;
        const pid_t found = ::waitpid(tid, &status, __WALL | WNOHANG);
        if (found == tid && WIFSTOPPED(status)) letGo(tid, isEventStop(status) ? 0 : stopSignal(status));
        return found != 0;
    });
}

}  // namespace quorvix::swivex::stacks
