#pragma once

#include <memory>

#include "perfstats/PerfSnapshot.h"

namespace quorvix {

// What every process used between two snapshots: one entry a process of either, marked as alive, new or dead, the
// heaviest user of CPU first. Sorts both inputs in place by pid. nullptr when an input is missing or memory is out,
// with a line in the log.
std::unique_ptr<cpu_statistics> delta_cpu_statistics(cpu_statistics* start, cpu_statistics* end);

// Packs a value, clamped to its field's maximum, into an activation's flags. Fields are OR-ed, not replaced: inserting
// twice mixes the two values, on purpose. An index that is no field's changes nothing.
void insertActivationFlag(std::uint64_t value, std::int32_t index, std::uint64_t& flags);

}  // namespace quorvix
