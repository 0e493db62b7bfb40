#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace quorvix::swivex::stacks {

// The whole text of /proc/ID/NAME, at most so much. Empty when it can't be read.
std::string readProcFile(pid_t id, std::string_view name, std::size_t mostBytes);

}  // namespace quorvix::swivex::stacks
