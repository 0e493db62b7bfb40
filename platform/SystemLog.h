#pragma once

#include <cstdint>
#include <string_view>

#include "platform/TextFormat.h"

namespace quorvix {

enum class LogLevel : std::uint8_t { standard, info, debug };

// The system log. Callable from any thread. Never rate-limits.
class SystemLog {
public:
    virtual ~SystemLog() = default;
    // Whether a line of this level would be kept: a text is not formatted when it would not.
    virtual bool enabled(std::string_view subsystem, std::string_view category, LogLevel level) noexcept = 0;
    virtual void write(std::string_view subsystem, std::string_view category, LogLevel level,
                       std::string_view text) = 0;
};

// A handle for one subsystem and category. The texts outlive the handle (string literals).
class LogHandle {
public:
    LogHandle(SystemLog& log, std::string_view subsystem, std::string_view category)
        : log_(log), subsystem_(subsystem), category_(category) {}

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
        log_.write(subsystem_, category_, level, formatText<Args...>(format, args...));
    }

    SystemLog& log_;
    std::string_view subsystem_;
    std::string_view category_;
};

}  // namespace quorvix
