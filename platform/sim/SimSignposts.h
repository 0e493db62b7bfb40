#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/Signposts.h"

namespace quorvix::sim {

// Interval events in memory, in order. Off until a test switches them on. One thread.
class SimSignposts : public Signposts {
public:
    struct Event {
        bool begin;
        std::uint32_t identifier;
        std::string name;
        std::string format;
        std::string string1;
        std::optional<std::uint64_t> number1;
        std::optional<std::uint64_t> number2;
        bool operator==(const Event&) const = default;
    };

    void setEnabled(bool on) { enabled_ = on; }
    bool enabled() override { return enabled_; }
    void intervalBegin(std::uint32_t identifier, std::string_view name, std::string_view format,
                       const SignpostTelemetry& telemetry) override {
        add(true, identifier, name, format, telemetry);
    }
    void intervalEnd(std::uint32_t identifier, std::string_view name, std::string_view format,
                     const SignpostTelemetry& telemetry) override {
        add(false, identifier, name, format, telemetry);
    }

    const std::vector<Event>& events() const { return events_; }

private:
    void add(bool begin, std::uint32_t identifier, std::string_view name, std::string_view format,
             const SignpostTelemetry& telemetry) {
        events_.push_back({begin, identifier, std::string(name), std::string(format), std::string(telemetry.string1),
                           telemetry.number1, telemetry.number2});
    }

    bool enabled_ = false;
    std::vector<Event> events_;
};

}  // namespace quorvix::sim
