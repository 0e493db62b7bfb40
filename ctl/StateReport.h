#pragma once

#include <optional>
#include <string>

namespace quorvix::ctl {

// The daemon's state as a page to read: single values first, then a table for every list and every group, in the
// order the daemon gives them. Knows none of the names, so that what the daemon adds is shown. Nothing: the document is
// not one JSON object.
std::optional<std::string> stateReport(const std::string& document);

}  // namespace quorvix::ctl
