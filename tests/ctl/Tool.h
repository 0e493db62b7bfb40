#pragma once

#include <cerrno>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "ctl/CommandLine.h"
#include "platform/sim/SimPreferences.h"

namespace quorvix::ctl {

inline constexpr PreferenceDomain kDa{"com.norvane.da", "mobile"};
inline constexpr PreferenceDomain kQuorvix{"com.norvane.quorvix", "mobile"};

// quorvixctl on simulated services, and what it wrote.
class Tool {
public:
    ExitStatus run(std::vector<std::string> arguments) {
        out.str("");
        error.str("");
        return runCommandLine(std::move(arguments), services);
    }

    sim::SimPreferences preferences;
    std::vector<std::string> posted;
    int postError = 0;
    int readError = 0;
    std::string reportFolder = "/nonexistent/reports";
    std::optional<std::string> snapshotPath;
    int startError = 0;
    int starts = 0;
    std::ostringstream out;
    std::ostringstream error;
    ToolServices services{.preferences = preferences,
                          .readDomain = [this](const PreferenceDomain& domain) -> Result<PropertyListDictionary> {
                              if (readError != 0) return ErrorCode{readError};
                              return preferences.stored(domain);
                          },
                          .writeDomain = [this](const PreferenceDomain& domain) -> Result<void> {
                              if (!preferences.synchronise(domain)) return ErrorCode{EIO};
                              return {};
                          },
                          .post = [this](std::string_view name) -> Result<void> {
                              if (postError != 0) return ErrorCode{postError};
                              posted.emplace_back(name);
                              return {};
                          },
                          .statePath = "/nonexistent/state",
                          .reportFolder = reportFolder,
                          .takeSnapshot = [this] { return snapshotPath; },
                          .out = out,
                          .error = error,
                          .startDaemon = [this]() -> Result<void> {
                              ++starts;
                              if (startError != 0) return ErrorCode{startError};
                              return {};
                          }};
};

}  // namespace quorvix::ctl
