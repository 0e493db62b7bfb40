#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace quorvix::report {

// What a thread can be doing; each moment of a timeline is exactly one of these.
enum class Activity : std::uint8_t {
    unknown,          // the recorder did not cover it
    running,          // on a CPU
    runnable,         // wanted to run and did not: others ran, or its group was throttled
    sleeping,         // waited for an event, interruptibly
    uninterruptible,  // waited in the kernel, for a device as a rule
    stopped,          // by a signal or a tracer, or frozen
    gone,             // had exited
};
inline constexpr std::size_t kActivities = 7;

// For programs: "running".
std::string_view keyOf(Activity activity);

// Nanoseconds of CLOCK_MONOTONIC; empty when the end is not after the begin.
struct Interval {
    std::uint64_t beginNs = 0;
    std::uint64_t endNs = 0;
    std::uint64_t length() const { return endNs > beginNs ? endNs - beginNs : 0; }
    Interval common(const Interval& other) const {
        return {std::max(beginNs, other.beginNs), std::min(endNs, other.endNs)};
    }
};

}  // namespace quorvix::report
