#pragma once

#include <cstdint>
#include <string>

#include "platform/VMStatistics.h"

namespace quorvix {

// The two lines of a VM block of the console table: headers and values.
std::string vmStatisticsBlock(const vm_statistics64& statistics);

// The members of a VM object of the JSON text.
std::string vmStatisticsJson(const vm_statistics64& statistics);

// End minus start of the eleven 64-bit event counters, unsigned and wrapping; everything else is 0, deliberately: the
// amounts of two moments have no meaningful difference here.
vm_statistics64 vmStatisticsDelta(const vm_statistics64& start, const vm_statistics64& end);

}  // namespace quorvix
