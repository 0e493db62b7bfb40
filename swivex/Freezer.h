#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>
#include <vector>

namespace quorvix::swivex {

// Whether the control group of a process, or one above it, is frozen: in the one hierarchy, in the one beside the older
// ones, or in the older freezer's. No where that can't be found out.
bool isFrozen(const std::string& procFolder, const std::string& cgroupFolder, pid_t pid);

// A file that tells of it, and the line that it then holds.
struct FreezerFile {
    std::string path;
    std::string_view line;
};
// Of all groups that the text of /proc/PID/cgroup names.
std::vector<FreezerFile> freezerFilesOf(std::string_view groups, const std::string& cgroupFolder);

}  // namespace quorvix::swivex
