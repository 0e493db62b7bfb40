#pragma once

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <limits>

#include "platform/WorkQueue.h"

// When a repeating timer is due: the arithmetic that the Linux and the simulated queue share. Pure functions; every
// point of time is nanoseconds of the monotonic clock.
namespace quorvix::timer {

using Nanoseconds = std::chrono::nanoseconds;

// A period that nothing can be shorter than: a schedule of interval 0 and leeway 0 must not take a queue's whole time.
inline constexpr Nanoseconds kShortestPeriod = std::chrono::milliseconds(1);

// Preferences give delays of any size; the sum stays at the far end of time instead of wrapping into the past.
constexpr Nanoseconds saturatingAdd(Nanoseconds left, Nanoseconds right) {
    if (right.count() > 0 && left > Nanoseconds::max() - right) return Nanoseconds::max();
    if (right.count() < 0 && left < Nanoseconds::min() - right) return Nanoseconds::min();
    return left + right;
}

// A schedule without negative parts, whose interval is the one that is really kept.
constexpr TimerSchedule normalised(const TimerSchedule& schedule) {
    const Nanoseconds zero{0};
    const Nanoseconds leeway = std::max(schedule.leeway, zero);
    return {std::max(schedule.firstDelay, zero), std::max({schedule.interval, leeway, kShortestPeriod}), leeway};
}

// The next due time of a timer that was due at `due` and was fired in a wake-up planned for `planned` that really came
// at `now`. It stays on the grid of its interval; periods that were missed are left out, not fired in a burst; and it
// comes no sooner than its leeway after this firing. `planned` counts as the moment of firing as long as the wake-up
// was only a little late: otherwise a timer whose interval is its leeway would lose a little every time.
// Precondition: due <= planned <= now, a normalised schedule.
constexpr Nanoseconds nextDue(const TimerSchedule& schedule, Nanoseconds due, Nanoseconds planned, Nanoseconds now) {
    const Nanoseconds missed = ((now - due) / schedule.interval) * schedule.interval;
    const Nanoseconds onGrid = saturatingAdd(saturatingAdd(due, missed), schedule.interval);
    const Nanoseconds fired = now - planned <= schedule.leeway / 8 ? planned : now;
    return std::max(onGrid, saturatingAdd(fired, schedule.leeway));
}

// The roundest moment in [earliest, latest]: whole seconds if there is one, and so on down. Processes that choose alike
// wake the machine together.
constexpr Nanoseconds roundestMoment(Nanoseconds earliest, Nanoseconds latest) {
    using namespace std::chrono_literals;
    for (const Nanoseconds granule : std::array<Nanoseconds, 4>{1s, 250ms, 50ms, 10ms}) {
        const Nanoseconds past = earliest % granule;
        const Nanoseconds moment = past.count() == 0 ? earliest : saturatingAdd(earliest, granule - past);
        if (moment <= latest) return moment;
    }
    return latest;
}

}  // namespace quorvix::timer
