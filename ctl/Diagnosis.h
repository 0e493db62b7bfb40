#pragma once

#include <cstdint>
#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "ctl/ToolServices.h"

namespace quorvix::ctl {

// What one look at an installation has found.
struct Finding {
    // notice: worth knowing. problem: something that quorvixd is for does not work.
    enum class Kind : std::uint8_t { good, notice, problem } kind = Kind::good;
    std::string area;
    std::string text;
    // What to do about it; empty where nothing is to be done.
    std::string mend;
};

std::string_view findingKindName(Finding::Kind kind);

using Findings = std::vector<Finding>;

// The looks at an installation, each at its own part. They change nothing and never wait for long.
Findings examineUser(const ToolServices& services);
Findings examineFolders(const ToolServices& services);
Findings examineStores(const ToolServices& services);
Findings examinePreferences(const ToolServices& services);
Findings examineService(const ToolServices& services);
Findings examineJournal(const ToolServices& services);
Findings examineTracing(const ToolServices& services);
Findings examineKernelPrograms(const ToolServices& services);
Findings examineInhibitors(const ToolServices& services);
Findings examineTraceLibrary(const ToolServices& services);
Findings examineExport(const ToolServices& services);

// All of them, in this order.
Findings examineInstallation(const ToolServices& services);

}  // namespace quorvix::ctl
