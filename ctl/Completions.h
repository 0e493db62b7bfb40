#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "ctl/CommandTable.h"

namespace quorvix::ctl {

// Where the reports are that a command takes by their names alone.
struct ReportFolders {
    std::string hangReports;
    std::string memorySnapshots;
};

// The script that completes the tool's command line in "bash", "zsh" or "fish"; nothing: another shell. Holds all there
// is to know, so that completing never runs the tool.
std::optional<std::string> completionScript(std::string_view shell, const CommandEntry& tool,
                                            const ReportFolders& folders);

}  // namespace quorvix::ctl
