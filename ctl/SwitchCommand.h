#pragma once

#include <string>

#include "ctl/ExitStatus.h"
#include "ctl/ToolServices.h"

namespace quorvix::ctl {

// "enable" and "disable": one of the daemon's jobs on or off, by the preferences that a job needs. Enabling also starts
// the daemon, which ends by itself while it has nothing to do; disabling leaves that to it.
//
//   hang          hang tracing, and a report with a trace of each hang
//   activations   measuring launches and resumes
//   memory        memory snapshots
class SwitchCommand {
public:
    explicit SwitchCommand(const ToolServices& services) : services_(services) {}

    // Precondition: one of the names above.
    ExitStatus enable(const std::string& job) const;
    ExitStatus disable(const std::string& job) const;

private:
    const ToolServices& services_;
};

}  // namespace quorvix::ctl
