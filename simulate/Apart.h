#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "simulate/Simulation.h"

namespace quorvix::simulate {

// How a run in a process of its own ended.
struct Ending {
    bool failed = false;
    // Not by a difference: by a signal, a sanitizer or an endless loop, as text; else empty.
    std::string crash{};
    bool stuck = false;
    Progress progress{};
};

// Runs it in a child process, so that whatever it does there only ends the child. `run` gives the child's exit status:
// 0 all went well, 1 a difference was found. A step that takes too long ends the child.
// quiet: what the child prints is dropped. Precondition: this process has no other thread.
Ending runApart(const std::function<int(const OnProgress&)>& run, bool quiet = false, long mostCpuSecondsOfAStep = 10);

}  // namespace quorvix::simulate
