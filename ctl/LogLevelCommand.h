#pragma once

#include "ctl/Verb.h"

namespace quorvix::ctl {

// "log level": shows and sets which lines the daemon keeps (docs/logging.md).
void addLogLevelCommand(CLI::App& log, const VerbContext& context);

}  // namespace quorvix::ctl
