#pragma once

#include "swivex/Stacks.h"
#include "swivex/stacks/Registers.h"
#include "swivex/stacks/RemoteMemory.h"

namespace quorvix::swivex::stacks {

// A thread with what its stack is unwound from.
struct CapturedThread {
    ThreadStack stack;
    bool hasRegisters = false;
    Registers registers{};
    MemoryCopy memory;
};

}  // namespace quorvix::swivex::stacks
