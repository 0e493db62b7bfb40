#pragma once

#include <optional>
#include <string>

#include "simulate/Simulation.h"

namespace quorvix::simulate {

struct CommandLine {
    Options options{};
    bool showLog = false;
    bool shrinks = true;
    std::string canary{};  // the broken build that this is, for the command that is printed
    std::string canaryText() const { return canary.empty() ? "" : "--canary " + canary + " "; }
};

// Nothing: it could not be understood, which was said on standard error.
std::optional<CommandLine> parseCommandLine(int count, const char* const* arguments);

}  // namespace quorvix::simulate
