#pragma once

#include <sys/types.h>

#include <string>

namespace quorvix::swivex {

// Whether the control group of a process, or one above it, is frozen: in the one hierarchy, in the one beside the older
// ones, or in the older freezer's. No where that can't be found out.
bool isFrozen(const std::string& procFolder, const std::string& cgroupFolder, pid_t pid);

}  // namespace quorvix::swivex
