#pragma once

#include "swivex/Attributes.h"
#include "swivex/PacketBuffer.h"

namespace quorvix::swivex {

// Memory, pressure and CPU figures of the whole machine, from the kernel's counters. What can't be read is noted in the
// attributes.
void writeSystemFigures(PacketBuffer& file, const std::string& procFolder, Attributes& attributes,
                        std::uint64_t timeNs);

// The kernel's name and version, and the machine's size. Stands before every event: readers take the meaning of thread
// states from it.
void writeSystemInfo(PacketBuffer& file, std::uint64_t timeNs);

}  // namespace quorvix::swivex
