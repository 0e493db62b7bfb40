#pragma once

#include <string>

#include "ctl/ExitStatus.h"
#include "ctl/Pruning.h"
#include "ctl/ToolServices.h"

namespace quorvix::ctl {

struct PruneRequest {
    PruneLimits limits;
    // Says what would go, and removes nothing.
    bool dryRun = false;
    bool asJson = false;
};

// "report prune" and "memory prune": removes old reports from the spool of hang reports, whose owners are the apps that
// hung, or from the folder of memory snapshots, which have one owner. Looks at plain files of the reports' own names
// only, and follows no link. A folder that is not there holds nothing to remove.
class PruneCommand {
public:
    explicit PruneCommand(const ToolServices& services) : services_(services) {}

    ExitStatus hangReports(const PruneRequest& request) const;
    ExitStatus memorySnapshots(const PruneRequest& request) const;

private:
    enum class Owners : bool { one, apps };

    ExitStatus prune(const std::string& folder, const char* pattern, Owners owners, const PruneRequest& request) const;

    const ToolServices& services_;
};

}  // namespace quorvix::ctl
