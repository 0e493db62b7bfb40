#pragma once

#include <cstdint>

#include "platform/Time.h"

namespace quorvix::linuxos {

// The first whole second of the calendar day after the one that `time` lies in. localDay: the number of the local
// calendar day that a second since the Epoch lies in. Found by halving, so that zones which skip midnight, or a whole
// day, need no rule of their own.
template <class LocalDay>
WallTime startOfNextDay(WallTime time, LocalDay localDay) {
    // The longest local day on record has 25 hours, and a skipped day makes the next start come no later.
    constexpr std::int64_t kLongestDay = 49 * 3600;
    std::int64_t before = std::chrono::floor<std::chrono::seconds>(time.time_since_epoch()).count();
    const std::int64_t today = localDay(before);
    std::int64_t after = before + kLongestDay;
    while (after - before > 1) {
        const std::int64_t middle = before + (after - before) / 2;
        (localDay(middle) > today ? after : before) = middle;
    }
    return WallTime(std::chrono::seconds(after));
}

}  // namespace quorvix::linuxos
