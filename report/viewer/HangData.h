#pragma once

#include <nlohmann/json_fwd.hpp>

#include "report/HangReport.h"

namespace quorvix::report {

// How deep a report is looked into for the viewer's page.
inline constexpr AnalysisDepth kViewerDepth{
    .waits = 12, .blockers = 3, .users = 10, .slices = 480, .otherThreads = 16, .stacks = 128};

// One report as the viewer's page shows it. Times are nanoseconds from the hang's begin, which a script's numbers hold
// exactly. Every text is escaped as for a terminal: marks that turn the direction of writing or that nobody can see
// would mislead a reader of the page too. Frames stand in a table of their own, since stacks share most of them.
nlohmann::ordered_json hangData(const HangReport& report);

}  // namespace quorvix::report
