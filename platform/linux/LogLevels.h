#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "platform/PropertyList.h"
#include "platform/SystemLog.h"
#include "platform/linux/FileStamp.h"

namespace quorvix::linuxos {

// Subsystem -> category or "*" -> the least important level that is kept.
using LogRules = std::map<std::string, std::map<std::string, LogLevel, std::less<>>, std::less<>>;

// What of a list of log levels is understood, and what to tell of the rest: empty, all was.
struct LogLevelList {
    LogRules rules;
    std::string toTell;
};
LogLevelList logLevelsOf(const PropertyListDictionary& list);

// Which lines the log keeps, as an administrator's property list says:
//
//   <dict>
//     <key>com.norvane.quorvix</key>      the subsystem
//     <dict>
//       <key>platform</key> <string>debug</string>      one category; the empty key is the empty category
//       <key>*</key> <string>default</string>           every other category
//     </dict>
//   </dict>
//
// "default" keeps default-level lines only, "info" info lines too, "debug" all. What the list does not name is at
// "info", and so is everything when there is no list. A damaged list, or a level that is none of the three, counts as
// not there, and is told to the reporter once a change.
//
// The file is looked at while lines are written, at most once a second, never by a timer. Callable from any thread.
class LogLevels {
public:
    using Reporter = std::function<void(const std::string& text)>;

    static constexpr std::string_view kPath = "/etc/vex/logging.plist";

    LogLevels(std::string path, std::chrono::nanoseconds checkInterval, Reporter reporter)
        : path_(std::move(path)), checkInterval_(checkInterval), reporter_(std::move(reporter)) {}

    bool enabled(std::string_view subsystem, std::string_view category, LogLevel level);
    std::uint64_t reloads() const { return reloads_; }

private:
    void checkFile();
    // What to tell, if anything. Called with mutex_ held.
    std::string reload();

    const std::string path_;
    const std::chrono::nanoseconds checkInterval_;
    const Reporter reporter_;
    // CLOCK_MONOTONIC_COARSE, nanoseconds.
    std::atomic<std::int64_t> nextCheckNs_{0};
    // Whether there are rules at all: without, the question needs no lock.
    std::atomic<bool> hasRules_{false};
    std::atomic<std::uint64_t> reloads_{0};

    std::mutex mutex_;
    LogRules rules_;
    std::optional<FileStamp> stamp_;
    std::string told_;
};

}  // namespace quorvix::linuxos
