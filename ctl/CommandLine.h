#pragma once

#include <string>
#include <vector>

#include "ctl/ExitStatus.h"
#include "ctl/ToolServices.h"

namespace quorvix::ctl {

// Runs quorvixctl with these arguments (the program's own name left out).
ExitStatus runCommandLine(std::vector<std::string> arguments, const ToolServices& services);

}  // namespace quorvix::ctl
