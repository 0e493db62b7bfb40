#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace quorvix {

// A point of wall-clock time (CLOCK_REALTIME), nanosecond resolution. Never mixed with ticks: the wall clock steps.
using WallTime = std::chrono::time_point<std::chrono::system_clock, std::chrono::nanoseconds>;

// The tick clock's ratio: one tick is numerator / denominator nanoseconds.
struct TickRatio {
    std::uint32_t numerator;
    std::uint32_t denominator;
};

// The monotonic tick clock. Callable from any thread.
class TickClock {
public:
    virtual ~TickClock() = default;
    // Ticks since an arbitrary start; never runs backwards.
    virtual std::uint64_t now() noexcept = 0;
    virtual TickRatio ratio() noexcept = 0;
};

// Formats points of time in the local time zone, which is re-read before every use. Used from one queue.
class DateFormatter {
public:
    virtual ~DateFormatter() = default;
    virtual std::string format(WallTime time) = 0;
};

// The wall clock and its date formats. now() is callable from any thread.
class WallClock {
public:
    virtual ~WallClock() = default;
    virtual WallTime now() noexcept = 0;
    // pattern: letters "yyyy", "MM", "dd", "HH", "mm", "ss" and literal text between them.
    virtual std::unique_ptr<DateFormatter> makeDateFormatter(std::string_view pattern) = 0;
    // The start of the calendar day after the one that `time` lies in, in the local time zone, which is re-read; where
    // the zone skips midnight, the first moment of that day.
    virtual WallTime nextLocalMidnight(WallTime time) = 0;
};

}  // namespace quorvix
