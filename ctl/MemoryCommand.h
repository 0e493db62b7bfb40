#pragma once

#include <optional>
#include <string>
#include <vector>

#include "ctl/ExitStatus.h"
#include "ctl/MemoryReport.h"
#include "ctl/ToolServices.h"

namespace quorvix::ctl {

// "quorvixctl memory ...": reads memory snapshot reports, shows them and what grew between two of them. A report is
// named by a path or by its name in the report folder.
class MemoryCommand {
public:
    static constexpr std::size_t kRowsByDefault = 20;

    explicit MemoryCommand(const ToolServices& services) : services_(services) {}

    ExitStatus list(bool asJson) const;
    ExitStatus show(const std::string& file, bool asJson) const;
    // What changed, the greatest growth first.
    ExitStatus diff(const std::string& before, const std::string& after, std::size_t rows, bool asJson) const;
    // The greatest of the newest report.
    ExitStatus top(std::size_t rows, bool asJson) const;
    ExitStatus snapshot(bool asJson) const;

private:
    // Names of the reports in the report folder, the oldest first; nothing, and said so, when it can't be read.
    std::optional<std::vector<std::string>> reportNames() const;
    std::optional<MemoryReport> read(const std::string& file) const;

    const ToolServices& services_;
};

}  // namespace quorvix::ctl
