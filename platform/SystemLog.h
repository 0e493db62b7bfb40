#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/TextFormat.h"

namespace quorvix {

enum class LogLevel : std::uint8_t { standard, info, debug };

// What a line is about, for readers that look for events and not for texts.
enum class LogEventKind : std::uint8_t {
    none,
    hang,
    reportWritten,
    reportRefused,
    dailyReset,
    activationRecorded,
    snapshotWritten,
};

struct LogEvent {
    LogEventKind kind = LogEventKind::none;
    // One word of a fixed set where the kind has several causes (docs/logging.md), else empty. A string literal.
    std::string_view reason = {};
    bool operator==(const LogEvent&) const = default;
};

// The system log. Callable from any thread. Never rate-limits.
class SystemLog {
public:
    virtual ~SystemLog() = default;
    // Whether a line of this level would be kept: a text is not formatted when it would not.
    virtual bool enabled(std::string_view subsystem, std::string_view category, LogLevel level) noexcept = 0;
    virtual void write(std::string_view subsystem, std::string_view category, LogLevel level,
                       std::string_view text) = 0;
    // The same line, which tells of an event. Where the log has no place for that it is a line like any other.
    virtual void writeEvent(const LogEvent&, std::string_view subsystem, std::string_view category, LogLevel level,
                            std::string_view text) {
        write(subsystem, category, level, text);
    }
};

// A handle for one subsystem and category. The texts outlive the handle (string literals).
class LogHandle {
public:
    LogHandle(SystemLog& log, std::string_view subsystem, std::string_view category)
        : log_(log), subsystem_(subsystem), category_(category) {}

    // The same handle, whose lines tell of this event; their text is what it would be without.
    LogHandle about(LogEventKind kind, std::string_view reason = {}) const {
        LogHandle handle = *this;
        handle.event_ = {kind, reason};
        return handle;
    }

    // A default-level line.
    template <class... Args>
    void standard(std::type_identity_t<FormatString<FormatArgument<Args>...>> format, const Args&... args) const {
        write<Args...>(LogLevel::standard, format, args...);
    }
    template <class... Args>
    void info(std::type_identity_t<FormatString<FormatArgument<Args>...>> format, const Args&... args) const {
        write<Args...>(LogLevel::info, format, args...);
    }
    template <class... Args>
    void debug(std::type_identity_t<FormatString<FormatArgument<Args>...>> format, const Args&... args) const {
        write<Args...>(LogLevel::debug, format, args...);
    }

private:
    template <class... Args>
    void write(LogLevel level, FormatString<FormatArgument<Args>...> format, const Args&... args) const {
        if (!log_.enabled(subsystem_, category_, level)) return;
        const std::string text = formatText<Args...>(format, args...);
        if (event_.kind == LogEventKind::none) {
            log_.write(subsystem_, category_, level, text);
        } else {
            log_.writeEvent(event_, subsystem_, category_, level, text);
        }
    }

    SystemLog& log_;
    std::string_view subsystem_;
    std::string_view category_;
    LogEvent event_;
};

}  // namespace quorvix
