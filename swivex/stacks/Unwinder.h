#pragma once

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <vector>

#include "swivex/Stacks.h"
#include "swivex/stacks/CapturedThread.h"
#include "swivex/stacks/ModuleFiles.h"

namespace quorvix::swivex::stacks {

// Makes frames of registers and copies of stacks, by the unwinding tables of the files, else by frame pointers.
// Believes nothing of the files, but the library that reads them is only as good as it is: to be used where its end is
// no loss. Never looks for debugging files, on this machine or elsewhere.
class Unwinder {
public:
    // The modules outlive it.
    Unwinder(pid_t pid, std::vector<ModuleFile>& modules);
    ~Unwinder();
    Unwinder(const Unwinder&) = delete;
    Unwinder& operator=(const Unwinder&) = delete;

    // Into the thread's user frames, whose modules are numbers of modules(), and its problem.
    void unwind(CapturedThread& thread, std::chrono::steady_clock::time_point deadline);
    // Those that frames lie in so far, in the order in which they were met.
    const std::vector<Module>& modules() const;

private:
    class State;

    std::unique_ptr<State> state_;
};

}  // namespace quorvix::swivex::stacks
