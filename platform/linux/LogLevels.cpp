#include "platform/linux/LogLevels.h"

#include <sys/stat.h>
#include <time.h>

#include <cerrno>
#include <utility>

#include "platform/linux/PropertyListReader.h"

namespace quorvix::linuxos {

namespace {

constexpr std::string_view kEveryCategory = "*";
constexpr LogLevel kUsualLevel = LogLevel::info;

std::int64_t coarseNow() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return now.tv_sec * 1'000'000'000 + now.tv_nsec;
}

std::optional<LogLevel> levelNamed(const PropertyListValue& value) {
    const auto* word = std::get_if<std::string>(&value.content());
    if (!word) return std::nullopt;
    if (*word == "default") return LogLevel::standard;
    if (*word == "info") return LogLevel::info;
    if (*word == "debug") return LogLevel::debug;
    return std::nullopt;
}

}  // namespace

bool LogLevels::enabled(std::string_view subsystem, std::string_view category, LogLevel level) {
    std::int64_t next = nextCheckNs_.load(std::memory_order_relaxed);
    const std::int64_t now = coarseNow();
    // One of the threads that ask looks at the file.
    if (now >= next && nextCheckNs_.compare_exchange_strong(next, now + checkInterval_.count())) checkFile();

    if (!hasRules_.load(std::memory_order_acquire)) return level <= kUsualLevel;
    const std::lock_guard lock(mutex_);
    const auto rules = rules_.find(subsystem);
    if (rules == rules_.end()) return level <= kUsualLevel;
    auto rule = rules->second.find(category);
    if (rule == rules->second.end()) rule = rules->second.find(kEveryCategory);
    return level <= (rule == rules->second.end() ? kUsualLevel : rule->second);
}

void LogLevels::checkFile() {
    std::string toTell;
    {
        const std::lock_guard lock(mutex_);
        struct stat status {};
        if (::stat(path_.c_str(), &status) == 0 && stamp_ && stamp_->stillHolds(status)) return;
        toTell = reload();
        // Said once as long as it stays the same.
        if (toTell == std::exchange(told_, toTell)) return;
    }
    // Without the lock: the reporter writes to the log.
    if (!toTell.empty()) reporter_(toTell);
}

std::string LogLevels::reload() {
    stamp_.reset();
    LogLevelList levels;
    const Result<PropertyListOnDisk> list = readPropertyListFile(path_);
    if (list) {
        ++reloads_;
        stamp_ = list->stamp;
        levels = logLevelsOf(list->dictionary);
    } else if (list.error().value != ENOENT) {
        levels.toTell = "log levels are the usual ones: " + path_ + ": " +
                        (isDamagedList(list.error()) ? "damaged" : list.error().text());
    }
    rules_ = std::move(levels.rules);
    hasRules_.store(!rules_.empty(), std::memory_order_release);
    return std::move(levels.toTell);
}

LogLevelList logLevelsOf(const PropertyListDictionary& list) {
    LogLevelList found;
    const auto notUnderstood = [&](const std::string& what) { found.toTell = "log levels: not understood: " + what; };
    for (const auto& [subsystem, value] : list) {
        const auto* categories = std::get_if<PropertyListDictionary>(&value.content());
        if (!categories) {
            notUnderstood(subsystem);
            continue;
        }
        for (const auto& [category, word] : *categories) {
            if (const std::optional<LogLevel> level = levelNamed(word)) {
                found.rules[subsystem][category] = *level;
            } else {
                notUnderstood(subsystem + " " + category);
            }
        }
    }
    return found;
}

}  // namespace quorvix::linuxos
