#pragma once

#include <string>

#include "ctl/ExitStatus.h"
#include "ctl/ToolServices.h"

namespace quorvix::ctl {

// "quorvixctl report ...": reads hang reports by itself, with no viewer. A report is named by a path or by its name in
// the spool folder.
class ReportCommand {
public:
    enum class Format { text, json };
    struct Form {
        Format format = Format::text;
        bool symbols = true;  // name the frames of the stack, which reads the modules' files on this machine
    };

    explicit ReportCommand(const ToolServices& services) : services_(services) {}

    // The newest first: when, which app, how long, why. Reports that can't be read are listed with the reason.
    ExitStatus list(const std::string& folder, Format format) const;
    // Failed: not readable, or no hang report. An incomplete file is shown as far as it goes.
    ExitStatus show(const std::string& file, const std::string& folder, const Form& form) const;

private:
    const ToolServices& services_;
};

}  // namespace quorvix::ctl
