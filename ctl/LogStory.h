#pragma once

#include <string>
#include <vector>

#include "ctl/LogLines.h"

namespace quorvix::ctl {

// The lines that tell of one app, in their order: those that name it as a word of its own, and those that give only the
// number of its process while that process was connected. An app that is a number is a process.
std::vector<LogLine> storyOf(const std::string& app, std::vector<LogLine> lines);

}  // namespace quorvix::ctl
