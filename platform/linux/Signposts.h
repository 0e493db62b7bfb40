#pragma once

#include <cstdint>
#include <mutex>
#include <string>

#include "platform/Json.h"
#include "platform/Signposts.h"
#include "platform/linux/Descriptor.h"

namespace quorvix::linuxos {

// Interval events as lines in the marker of a trace instance, in the form that trace viewers draw as slices:
//
//   S|<pid>|<name>|<identifier>      an interval begins; pid: of this process
//   F|<pid>|<name>|<identifier>      it ends
//   I|<pid>|<text>                   beside each: the event's text, its telemetry filled in
//
// The marker is opened for each event, so that its instance can be removed at any time. Writing never waits: it is a
// copy into the kernel's buffer. Callable from any thread.
class LinuxSignposts final : public Signposts {
public:
    static constexpr std::string_view kMarkerPath = "/sys/kernel/tracing/instances/swivex/trace_marker";

    explicit LinuxSignposts(std::string markerPath = std::string(kMarkerPath)) : markerPath_(std::move(markerPath)) {}

    bool enabled() override;
    void intervalBegin(std::uint32_t identifier, std::string_view name, std::string_view format,
                       const SignpostTelemetry& telemetry) override;
    void intervalEnd(std::uint32_t identifier, std::string_view name, std::string_view format,
                     const SignpostTelemetry& telemetry) override;

    JsonObject selfCounters() const;

private:
    void write(char kind, std::uint32_t identifier, std::string_view name, std::string_view text);
    void writeLine(const Descriptor& marker, const std::string& line);

    const std::string markerPath_;
    mutable std::mutex mutex_;
    std::uint64_t written_ = 0;
    std::uint64_t failed_ = 0;
};

// The event's text with its telemetry in the place of each "%{signpost.telemetry:...}".
std::string signpostText(std::string_view format, const SignpostTelemetry& telemetry);

}  // namespace quorvix::linuxos
