#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace quorvix::ctl {

// The daemon's state as a page to read: single values first, then a table for every list and every group, in the
// order the daemon gives them. Knows none of the names, so that what the daemon adds is shown. Precondition: an object.
std::string stateReport(const nlohmann::ordered_json& state);

}  // namespace quorvix::ctl
