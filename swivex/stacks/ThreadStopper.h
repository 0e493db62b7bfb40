#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <span>
#include <vector>

#include "swivex/stacks/CapturedThread.h"

namespace quorvix::swivex::stacks {

// Stops threads one after the other, each for as long as its registers and its stack are copied. Nothing here waits for
// a thread without a bound: one that doesn't stop in time (it sleeps uninterruptibly, or the machine doesn't let it
// run) is given up. The kernel offers no way to take an unanswered stop back but the tracer's end: so a thread of our
// own traces, and ends before this returns.
class ThreadStopper {
public:
    using Clock = std::chrono::steady_clock;

    struct Limits {
        Clock::time_point deadline;
        std::size_t mostStackBytes;
    };

    ThreadStopper(const RemoteMemory& memory, const MemoryMap& map, Limits limits)
        : memory_(memory), map_(map), limits_(limits) {}

    // Fills in what could be had, and the problem where nothing could.
    void capture(std::span<CapturedThread* const> threads);

private:
    void captureAll(std::span<CapturedThread* const> threads);
    void captureOne(CapturedThread& thread);
    bool waitForStop(pid_t tid, Clock::time_point deadline, int& signal) const;
    // Threads that were given up may stop all the same: they go on at once.
    void releaseLate();

    const RemoteMemory& memory_;
    const MemoryMap& map_;
    const Limits limits_;
    std::vector<pid_t> givenUp_;
};

}  // namespace quorvix::swivex::stacks
