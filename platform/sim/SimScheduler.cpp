#include "platform/sim/SimScheduler.h"

#include <algorithm>
#include <utility>

#include "platform/Check.h"
#include "platform/TimerRules.h"

namespace quorvix::sim {

SimScheduler::SimScheduler(Nanoseconds uptime, WallTime wallTime) : monotonic_(uptime), wall_(wallTime) {}

void SimScheduler::runPending() {
    check(!delivering_, "time is not moved from inside work");
    makeDueReady();
    runReady();
}

void SimScheduler::advance(Nanoseconds duration) { move(duration, WallMotion::follows); }

void SimScheduler::advanceMonotonicOnly(Nanoseconds duration) { move(duration, WallMotion::stands); }

void SimScheduler::move(Nanoseconds duration, WallMotion wallMotion) {
    check(duration.count() >= 0, "time does not run backwards");
    runPending();
    const Nanoseconds end = monotonic_ + duration;
    // Work may have spent time of its own, so that the end can be behind us.
    while (monotonic_ < end) {
        const std::optional<Nanoseconds> next = untilNextEvent(wallMotion);
        const bool last = !next || *next > end - monotonic_;
        const Nanoseconds step = last ? end - monotonic_ : *next;
        monotonic_ += step;
        if (wallMotion == WallMotion::follows) wall_ += step;
        runPending();
    }
}

void SimScheduler::setWallClock(WallTime time) {
    check(!delivering_, "time is not moved from inside work");
    wall_ = time;
    runPending();
}

void SimScheduler::spend(Nanoseconds duration) {
    check(delivering_ && duration.count() >= 0, "only work spends time");
    monotonic_ += duration;
    wall_ += duration;
}

SimScheduler::Nanoseconds SimScheduler::leewayUsed(Nanoseconds due, Nanoseconds leeway) const noexcept {
    using std::chrono::milliseconds;
    if (leewayUse_ == LeewayUse::none) return Nanoseconds{0};
    if (leewayUse_ == LeewayUse::full) return leeway;
    // The due moment alone decides, so that two schedulers of one seed agree whatever else is on each.
    std::uint64_t mixed = leewaySeed_ + static_cast<std::uint64_t>(due.count()) * 0x9E3779B97F4A7C15u;
    mixed = (mixed ^ (mixed >> 30)) * 0xBF58476D1CE4E5B9u;
    mixed = (mixed ^ (mixed >> 27)) * 0x94D049BB133111EBu;
    mixed ^= mixed >> 31;
    const auto choices = static_cast<std::uint64_t>(leeway / milliseconds(1)) + 1;
    return milliseconds(mixed % choices);
}

void SimScheduler::holdWakeUps(Nanoseconds duration) { heldUntil_ = std::max(heldUntil_, monotonic_ + duration); }

void SimScheduler::dropEverything() {
    // What pending work held may cancel its timers as it goes: the tables are emptied before anything is destroyed.
    const auto ready = std::exchange(ready_, {});
    const auto monotonicEvents = std::exchange(monotonicEvents_, {});
    const auto wallEvents = std::exchange(wallEvents_, {});
}

void SimScheduler::post(Work work) { ready_.push_back(std::move(work)); }

SimScheduler::EventId SimScheduler::addMonotonic(Nanoseconds due, Work work) {
    const EventId event = nextSequence_++;
    monotonicEvents_.emplace(Key<Nanoseconds>{due, event}, std::move(work));
    return event;
}

SimScheduler::EventId SimScheduler::addWall(WallTime due, Work work) {
    const EventId event = nextSequence_++;
    wallEvents_.emplace(Key<WallTime>{due, event}, std::move(work));
    return event;
}

void SimScheduler::cancelMonotonic(Nanoseconds due, EventId event) { monotonicEvents_.erase({due, event}); }

std::optional<SimScheduler::Nanoseconds> SimScheduler::nextMonotonicDue() const {
    if (monotonicEvents_.empty()) return std::nullopt;
    return monotonicEvents_.begin()->first.due;
}

std::optional<SimScheduler::Nanoseconds> SimScheduler::untilNextEvent(WallMotion wallMotion) const {
    std::optional<Nanoseconds> next;
    if (!monotonicEvents_.empty()) next = monotonicEvents_.begin()->first.due - monotonic_;
    if (wallMotion == WallMotion::follows && !wallEvents_.empty()) {
        const Nanoseconds wallStep =
            timer::saturatingAdd(wallEvents_.begin()->first.due.time_since_epoch(), -wall_.time_since_epoch());
        if (!next || wallStep < *next) next = wallStep;
    }
    if (next) next = std::max({*next, heldUntil_ - monotonic_, Nanoseconds{0}});
    return next;
}

void SimScheduler::makeDueReady() {
    if (monotonic_ < heldUntil_) return;
    for (;;) {
        const auto monotonicEvent = monotonicEvents_.begin();
        const auto wallEvent = wallEvents_.begin();
        const bool monotonicDue = monotonicEvent != monotonicEvents_.end() && monotonicEvent->first.due <= monotonic_;
        const bool wallDue = wallEvent != wallEvents_.end() && wallEvent->first.due <= wall_;
        if (!monotonicDue && !wallDue) return;
        // How long each has been due puts the two clocks' events in one order.
        const auto monotonicLateness = monotonicDue ? monotonic_ - monotonicEvent->first.due : Nanoseconds{-1};
        const auto wallLateness = wallDue ? wall_ - wallEvent->first.due : Nanoseconds{-1};
        const bool takeMonotonic =
            monotonicLateness > wallLateness ||
            (monotonicLateness == wallLateness && monotonicEvent->first.sequence < wallEvent->first.sequence);
        if (takeMonotonic) {
            ready_.push_back(std::move(monotonicEvents_.extract(monotonicEvent).mapped()));
        } else {
            ready_.push_back(std::move(wallEvents_.extract(wallEvent).mapped()));
        }
    }
}

void SimScheduler::runReady() {
    if (!mainThreadGiven_) return;
    struct Delivering {
        explicit Delivering(bool& state) : flag(state) { flag = true; }
        ~Delivering() { flag = false; }
        Delivering(const Delivering&) = delete;
        Delivering& operator=(const Delivering&) = delete;
        bool& flag;
    } delivering(delivering_);
    while (!ready_.empty()) {
        const Work work = std::move(ready_.front());
        ready_.pop_front();
        work();
        // The work may have spent time.
        makeDueReady();
    }
}

}  // namespace quorvix::sim
