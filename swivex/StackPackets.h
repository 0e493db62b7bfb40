#pragma once

#include "swivex/KernelModules.h"
#include "swivex/PacketBuffer.h"
#include "swivex/Stacks.h"

namespace quorvix::swivex {

// The stacks of a process, a sample a thread. Modules with their build ids and addresses inside the files, so that
// they can be given names elsewhere; names of kernel functions where the capture has them, else their distance from
// the beginning of the kernel, or of the kernel's module. No address of the kernel itself is ever written: others may
// read the file.
void writeStacks(PacketBuffer& file, const StackCapture& capture, const KernelModules& modules, pid_t pid,
                 std::uint64_t timeNs);

}  // namespace quorvix::swivex
