#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Result.h"

namespace quorvix::ctl {

// One program's way out: its exit status, or 128 and the signal.
struct ProgramEnd {
    int status = 0;
};

// Runs another program without a shell, with nothing to read and its standard error dropped, and hands over each line
// of its standard output without the line feed. A line longer than the limit is cut. Returns when it has ended. An
// error: it could not be run.
Result<ProgramEnd> runProgram(const std::vector<std::string>& command,
                              const std::function<void(std::string_view line)>& onLine);

inline constexpr std::size_t kLongestProgramLine = std::size_t{1} << 20;

}  // namespace quorvix::ctl
