#pragma once

#include <string>

#include "perfstats/PerfSnapshot.h"
#include "perfstats/TaskColumns.h"

namespace quorvix {

// The header line of the console's process table, and one process's line.
std::string consoleTableHeader();
std::string consoleTableLine(std::int32_t pid, const char* name, const TaskColumns& columns,
                             std::uint8_t lifecycleState);

}  // namespace quorvix
