#pragma once

#include <chrono>
#include <compare>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>

#include "platform/Time.h"
#include "platform/WorkQueue.h"

namespace quorvix::sim {

// Thrown by SimQueueService::runMain: the main thread is given away, and the test that ran the whole start-up goes on.
struct MainThreadGiven {};

// Virtual time and everything that waits for it: one for a simulated world, shared by its queues and clocks.
//
// Time moves only when the test moves it, and then steps through every due moment in order of (due time, sequence
// number); what a moment sets off, and what that posts, is done before the next one. The monotonic and the wall clock
// advance together as on a device, and each can be moved alone. Work of all queues runs in the order it was posted, on
// the test's thread; an exception that work throws (SimulatedExit) passes through to the test and leaves the rest
// pending. Nothing is delivered before the main thread was given away. Never sleeps, starts no thread.
class SimScheduler {
public:
    using Nanoseconds = std::chrono::nanoseconds;
    using EventId = std::uint64_t;

    // How much of its leeway a repeating timer uses; varied: a share that the seed and the due moment decide.
    enum class LeewayUse { none, full, varied };

    static constexpr Nanoseconds kDefaultUptime = std::chrono::seconds(1000);
    // 2026-01-15 12:00:00 UTC.
    static constexpr WallTime kDefaultWallTime{std::chrono::seconds(1768478400)};

    explicit SimScheduler(Nanoseconds uptime = kDefaultUptime, WallTime wallTime = kDefaultWallTime);
    SimScheduler(const SimScheduler&) = delete;
    SimScheduler& operator=(const SimScheduler&) = delete;

    Nanoseconds monotonicNow() const noexcept { return monotonic_; }
    WallTime wallNow() const noexcept { return wall_; }

    // Delivers what is due now, and all that follows from it now, without moving time.
    void runPending();
    // Moves both clocks. Not from inside work: there spend() is the way.
    void advance(Nanoseconds duration);
    void advanceTo(Nanoseconds monotonicTime) { advance(monotonicTime - monotonic_); }
    // Moves the monotonic clock and leaves the wall clock where it is.
    void advanceMonotonicOnly(Nanoseconds duration);
    // The wall clock steps, in either direction; what becomes due by that is delivered.
    void setWallClock(WallTime time);
    // From inside work: both clocks move while the work runs, and what comes due meanwhile waits for its end.
    void spend(Nanoseconds duration);

    void giveMainThread() { mainThreadGiven_ = true; }
    bool mainThreadGiven() const noexcept { return mainThreadGiven_; }
    void setLeewayUse(LeewayUse use, std::uint64_t seed = 0) {
        leewayUse_ = use;
        leewaySeed_ = seed;
    }
    // How late a firing that is due then comes: whole milliseconds where it varies.
    Nanoseconds leewayUsed(Nanoseconds due, Nanoseconds leeway) const noexcept;
    // No moment of either clock wakes anybody for so long: what comes due meanwhile does so at the end, in its order.
    // Posted work runs as ever. Held already: the later end counts.
    void holdWakeUps(Nanoseconds duration);
    // Forgets all that is pending, as the end of the process does.
    void dropEverything();

    // For the queues. Work posted is ready at once; an event becomes ready when its moment comes. An event's id is
    // never used again.
    void post(Work work);
    EventId addMonotonic(Nanoseconds due, Work work);
    EventId addWall(WallTime due, Work work);
    // Takes back an event that did not become ready yet; otherwise does nothing.
    void cancelMonotonic(Nanoseconds due, EventId event);

    std::size_t readyCount() const noexcept { return ready_.size(); }
    // Events whose moment has not come.
    std::size_t waitingCount() const noexcept { return monotonicEvents_.size() + wallEvents_.size(); }
    std::optional<Nanoseconds> nextMonotonicDue() const;

private:
    enum class WallMotion { follows, stands };

    template <class Time>
    struct Key {
        Time due;
        EventId sequence;
        auto operator<=>(const Key&) const = default;
    };

    void move(Nanoseconds duration, WallMotion wallMotion);
    void makeDueReady();
    void runReady();
    // The time until the next event comes due, never negative; nothing when there is none.
    std::optional<Nanoseconds> untilNextEvent(WallMotion wallMotion) const;

    Nanoseconds monotonic_;
    WallTime wall_;
    EventId nextSequence_ = 1;
    std::deque<Work> ready_;
    std::map<Key<Nanoseconds>, Work> monotonicEvents_;
    std::map<Key<WallTime>, Work> wallEvents_;
    LeewayUse leewayUse_ = LeewayUse::none;
    std::uint64_t leewaySeed_ = 0;
    Nanoseconds heldUntil_{0};
    bool mainThreadGiven_ = false;
    bool delivering_ = false;
};

}  // namespace quorvix::sim
