#pragma once

#include <cstddef>
#include <nlohmann/json_fwd.hpp>
#include <string>

#include "ctl/ExitStatus.h"
#include "ctl/ToolServices.h"

namespace quorvix::ctl {

struct ReportPageRequest {
    std::string from;         // a report's path or its name in the spool; or a folder of reports
    std::string spoolFolder;  // where a name is looked for
    std::string output;       // empty: named after what is read, in the current folder; "-": standard output
    std::string powerLog;
    std::string memoryFolder;
    std::size_t limit = 200;  // reports of a folder that are told in full, the newest; the rest is listed
    bool symbols = true;
    bool asJson = false;
};

// "quorvixctl report html": writes a page that shows one hang report, or all of a folder, with the device's launches
// and its memory. The page appears under its name when it is whole; a page of that name is replaced. It can be read by
// its owner only, since that is so with what it is made of.
class ReportPageCommand {
public:
    explicit ReportPageCommand(const ToolServices& services) : services_(services) {}

    // Failed, and nothing is written: not readable, no hang report, a folder without any, or the page can't be written.
    ExitStatus write(const ReportPageRequest& request) const;

private:
    const ToolServices& services_;
};

}  // namespace quorvix::ctl
