#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "swivex/Stacks.h"
#include "swivex/stacks/CapturedThread.h"
#include "swivex/stacks/MemoryMap.h"
#include "swivex/stacks/ThreadIterator.h"

namespace quorvix::swivex::stacks {

struct CollectOptions {
    std::chrono::steady_clock::time_point deadline;
    bool kernelSymbols = false;
    StackRoute route = StackRoute::best;
};

// Takes registers, kernel stacks and copies of the user stacks of all threads of a process. What is told of the
// kernel's view is checked by a second look: a thread that was off the CPU at both and did not leave one in between
// stood still while its stack was read. Those that moved are read again, and stopped where that does not help.
class ThreadCollector {
public:
    ThreadCollector(pid_t pid, CollectOptions options) : pid_(pid), options_(options) {}

    void collect();

    std::vector<CapturedThread>& threads() { return threads_; }
    // Of the capture all but its threads and modules.
    const StackCapture& summary() const { return summary_; }
    const MemoryMap& map() const { return map_; }
    // A thread whose memory can be read: the main thread may be gone.
    pid_t memoryId() const { return memoryId_; }

private:
    using Records = std::vector<swivex_thread_record>;

    bool listByIterator();
    void listByProcfs();
    void readMap();
    void copyStacks();
    void checkStacks();
    void stopThreads();
    void nameKernelFrames();
    void countLeftOut();
    void fill(CapturedThread& thread, const swivex_thread_record& record) const;
    void copyStack(CapturedThread& thread, const RemoteMemory& memory) const;
    std::size_t stackBytes() const;

    const pid_t pid_;
    const CollectOptions options_;
    ThreadIterator iterator_;
    bool hasIterator_ = false;
    Records records_;  // of the look that the threads were filled from, in their order
    std::vector<CapturedThread> threads_;
    std::vector<bool> isDone_;  // by number of thread
    StackCapture summary_;
    MemoryMap map_;
    pid_t memoryId_ = 0;
};

}  // namespace quorvix::swivex::stacks
