#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace quorvix {

// The typed telemetry slots of an interval event.
struct SignpostTelemetry {
    std::string_view string1;
    std::optional<std::uint64_t> number1;
    std::optional<std::uint64_t> number2;
};

// Interval events in the system's performance trace. Callable from any thread.
class Signposts {
public:
    virtual ~Signposts() = default;
    // Whether interval events are recorded now.
    virtual bool enabled() = 0;
    // format: the event's text with its telemetry placeholders, as stored.
    virtual void intervalBegin(std::uint32_t identifier, std::string_view name, std::string_view format,
                               const SignpostTelemetry& telemetry) = 0;
    virtual void intervalEnd(std::uint32_t identifier, std::string_view name, std::string_view format,
                             const SignpostTelemetry& telemetry) = 0;
};

// The process's standard output and the console logging call.
class Console {
public:
    virtual ~Console() = default;
    // A default-level line of the log, echoed to standard error when that is not where the log goes anyway.
    virtual void log(std::string_view text) = 0;
    virtual void print(std::string_view text) = 0;
};

}  // namespace quorvix
