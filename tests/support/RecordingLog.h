#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "platform/SystemLog.h"

namespace quorvix::tests {

// A log that keeps its lines, for services that write from threads of their own.
class RecordingLog : public SystemLog {
public:
    bool enabled(std::string_view, std::string_view, LogLevel) noexcept override { return true; }
    void write(std::string_view, std::string_view category, LogLevel, std::string_view text) override {
        const std::lock_guard lock(mutex_);
        lines_.push_back(std::string(category) + ": " + std::string(text));
    }
    std::vector<std::string> lines() const {
        const std::lock_guard lock(mutex_);
        return lines_;
    }

private:
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
};

}  // namespace quorvix::tests
