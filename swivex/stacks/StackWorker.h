#pragma once

#include <sys/types.h>

#include <chrono>

#include "swivex/Stacks.h"
#include "swivex/stacks/CaptureRecords.h"

namespace quorvix::swivex::stacks {

struct StackRequest {
    pid_t pid = 0;
    std::chrono::steady_clock::time_point deadline;  // when it is killed
    bool kernelSymbols = false;
    StackRoute route = StackRoute::best;
};

// The whole life of the child process that looks into another one. Its caller is the only thread that was copied with
// it out of a process with many: locks of others may be held for ever in here, and only those of the memory allocator
// are known not to be. Ends the process.
[[noreturn]] void runStackWorker(const StackRequest& request, RecordRegion& region, pid_t caller);

}  // namespace quorvix::swivex::stacks
