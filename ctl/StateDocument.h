#pragma once

#include <nlohmann/json.hpp>

#include "ctl/ExitStatus.h"
#include "ctl/ToolServices.h"

namespace quorvix::ctl {

// The daemon's state as a command gets it: the document, or the status to end with, and then a line was said.
struct StateDocument {
    ExitStatus status = ExitStatus::done;
    nlohmann::ordered_json state;
};

StateDocument readStateDocument(const ToolServices& services);

}  // namespace quorvix::ctl
