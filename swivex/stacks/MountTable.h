#pragma once

#include <cstdint>
#include <set>
#include <string_view>
#include <utility>

namespace quorvix::swivex::stacks {

// Major and minor number.
using Device = std::pair<std::uint32_t, std::uint32_t>;

// The devices of file systems behind which a program or another machine stands, from the text of /proc/PID/mountinfo.
// It may never answer, or be what the process hangs at.
std::set<Device> devicesThatMayNotAnswer(std::string_view mounts);

}  // namespace quorvix::swivex::stacks
