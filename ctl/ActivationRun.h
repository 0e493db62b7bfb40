#pragma once

#include <string>
#include <vector>

#include "ctl/ActivationsCommand.h"

namespace quorvix::ctl {

// "activation run": takes the two snapshots around a command, as the daemon does around an app's activation, and prints
// the console table or the JSON text. Needs no daemon. Returns the command's own status (128 + signal where one ended
// it), or `failed` with a line on the error stream when it could not be started.
ExitStatus runActivation(const std::vector<std::string>& command, OutputForm form, const ToolServices& services);

}  // namespace quorvix::ctl
