#pragma once

#include <string>
#include <vector>

#include "report/HangReport.h"

namespace quorvix::report {

// A report as text for a terminal, what it lacks first. Every name in it is escaped.
std::string reportText(const HangReport& report);
// The same as one JSON document.
std::string reportJson(const HangReport& report);

// "worker (1235) of demo-app", escaped.
std::string labelText(const ThreadLabel& label);
// One sentence a line that supports the verdict, escaped.
std::vector<std::string> evidenceOf(const HangReport& report);

}  // namespace quorvix::report
