#pragma once

#include <cstdint>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/SystemLog.h"

namespace quorvix::sim {

// The system log in memory: keeps every line in order. All levels are on until a test switches one off. Locked, since
// the Linux services are tested with it too, and they log from their own threads.
class SimLog : public SystemLog {
public:
    struct Line {
        std::string subsystem;
        std::string category;
        LogLevel level;
        std::string text;
        bool operator==(const Line&) const = default;
    };

    void setEnabled(LogLevel level, bool on) {
        const std::lock_guard lock(mutex_);
        if (on) {
            off_.erase(level);
        } else {
            off_.insert(level);
        }
    }

    std::vector<Line> lines() const {
        const std::lock_guard lock(mutex_);
        return lines_;
    }
    // The texts of one category, in order; the empty category holds the system's given texts.
    std::vector<std::string> texts(std::string_view category = "") const {
        const std::lock_guard lock(mutex_);
        std::vector<std::string> found;
        for (const Line& line : lines_) {
            if (line.category == category) found.push_back(line.text);
        }
        return found;
    }
    // The events among the lines, in order, each with its line's text.
    std::vector<std::pair<LogEvent, std::string>> events() const {
        const std::lock_guard lock(mutex_);
        return events_;
    }
    void clear() {
        const std::lock_guard lock(mutex_);
        lines_.clear();
        events_.clear();
    }
    // How often it was asked whether a level is on.
    std::uint64_t enabledQuestions() const {
        const std::lock_guard lock(mutex_);
        return enabledQuestions_;
    }

    bool enabled(std::string_view, std::string_view, LogLevel level) noexcept override {
        const std::lock_guard lock(mutex_);
        ++enabledQuestions_;
        return !off_.contains(level);
    }
    void write(std::string_view subsystem, std::string_view category, LogLevel level, std::string_view text) override {
        const std::lock_guard lock(mutex_);
        lines_.push_back({std::string(subsystem), std::string(category), level, std::string(text)});
    }
    void writeEvent(const LogEvent& event, std::string_view subsystem, std::string_view category, LogLevel level,
                    std::string_view text) override {
        write(subsystem, category, level, text);
        const std::lock_guard lock(mutex_);
        events_.emplace_back(event, text);
    }

private:
    mutable std::mutex mutex_;
    std::set<LogLevel> off_;
    std::vector<Line> lines_;
    std::vector<std::pair<LogEvent, std::string>> events_;
    std::uint64_t enabledQuestions_ = 0;
};

}  // namespace quorvix::sim
