#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

#include "swivex/Stacks.h"

namespace quorvix::swivex::stacks {

// What procfs tells of a thread, as text. What is no such text gives nothing.

// Name and state of /proc/TID/stat. False: there are none, and the thread is as it was.
bool parseThreadStat(std::string_view text, ThreadStack& thread);

// The names of /proc/TID/stack.
std::vector<KernelFrame> parseKernelStack(std::string_view text);

// The number of threads of /proc/PID/status; 0 when it does not say.
std::size_t threadCountOf(std::string_view status);

}  // namespace quorvix::swivex::stacks
