#pragma once

#include "swivex/PacketBuffer.h"
#include "swivex/ProcessList.h"

namespace quorvix::swivex {

// Every process and thread by name, kernel threads too.
void writeProcessTree(PacketBuffer& file, const ProcessList& list, std::uint64_t timeNs);

// Memory and CPU time of every process that has memory of its own.
void writeProcessStats(PacketBuffer& file, const ProcessList& list, std::uint64_t timeNs);

}  // namespace quorvix::swivex
