#include "report/ThreadTimeline.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace quorvix::report {

namespace {

bool isSleep(Activity activity) {
    return activity == Activity::sleeping || activity == Activity::uninterruptible || activity == Activity::stopped;
}

bool longerInWindow(const Wait& one, const Wait& other) {
    return one.inWindowNs != other.inWindowNs ? one.inWindowNs > other.inWindowNs
                                              : one.interval.beginNs < other.interval.beginNs;
}

void keepLongest(std::vector<Wait>& waits, std::size_t count) {
    std::ranges::sort(waits, longerInWindow);
    if (waits.size() > count) waits.resize(count);
}

}  // namespace

std::optional<std::uint32_t> stateOfLetter(char letter) {
    switch (letter) {
        case 'R': return 0;
        case 'S': return thread_state::kInterruptible;
        case 'D': return thread_state::kUninterruptible;
        case 'T': return thread_state::kStopped;
        case 't': return thread_state::kTraced;
        case 'X': return thread_state::kDead;
        case 'Z': return thread_state::kZombie;
        case 'P': return thread_state::kParked;
        case 'I': return thread_state::kIdle;
        default: return std::nullopt;
    }
}

Activity activityOfState(std::uint32_t state) {
    using namespace thread_state;
    if ((state & (kDead | kZombie)) != 0) return Activity::gone;
    if ((state & (kStopped | kTraced)) != 0) return Activity::stopped;
    if ((state & kUninterruptible) != 0) return Activity::uninterruptible;
    if ((state & (kInterruptible | kParked | kIdle)) != 0) return Activity::sleeping;
    return Activity::runnable;
}

// One pass over the events in the order of their times.
class TimelineWalk {
public:
    using Event = ThreadTimelineBuilder::Event;

    using LastSwitches = std::map<std::uint32_t, ThreadTimelineBuilder::LastSwitch>;

    TimelineWalk(const Interval& window, const Interval& covered, const LastSwitches& lastSwitches, std::size_t slices)
        : known_(window.common(covered)), covered_(covered), lastSwitches_(lastSwitches) {
        timeline_.window = window;
        timeline_.strip = StateStrip(window, slices);
    }

    ThreadTimeline run(const std::vector<Event>& events, const ThreadHints& hints) {
        activity_ = before(events, hints);
        for (std::size_t at = 0; at < events.size(); ++at) {
            const Event& event = events[at];
            switch (event.kind) {
                case Event::Kind::left: left(event, at + 1 < events.size() ? &events[at + 1] : nullptr); break;
                case Event::Kind::woken: woken(event); break;
                case Event::Kind::came: enter(Activity::running, event.timeNs, true, std::nullopt); break;
            }
        }
        cameToIdleCpu();
        // What it was doing last, it does for as long as anything is known.
        enter(Activity::unknown, std::max(since_, covered_.endNs), false, std::nullopt);
        keepLongest(timeline_.longestWaits, ThreadTimelineBuilder::kMostWaits);
        std::uint64_t accounted = 0;
        for (const std::uint64_t time : timeline_.timeNs) accounted += time;
        timeline_.at(Activity::unknown) += timeline_.window.length() - accounted;
        timeline_.events = events.size();
        return std::move(timeline_);
    }

private:
    // What it did before its first event.
    static Activity before(const std::vector<Event>& events, const ThreadHints& hints) {
        if (events.empty()) {
            // Only its state at the dump: it has held since, or there would have been an event. Not so for a thread
            // that could run: whether it ran or stood in line is not known.
            const Activity atDump = hints.leftState ? activityOfState(*hints.leftState) : Activity::unknown;
            return atDump == Activity::runnable ? Activity::unknown : atDump;
        }
        switch (events.front().kind) {
            case Event::Kind::left: return Activity::running;
            case Event::Kind::woken: return Activity::sleeping;
            // A sleeper would have been woken first.
            case Event::Kind::came: return Activity::runnable;
        }
        return Activity::unknown;
    }

    // Some kernels record no switch of a CPU that leaves idling: a thread that leaves an idle CPU had come to it.
    void cameUnseen(std::uint64_t idleSinceNs) {
        if (since_ < idleSinceNs) enter(Activity::runnable, idleSinceNs, true, std::nullopt);
        activity_ = Activity::running;
    }

    // The same at the end: a CPU does not stay idle with a thread in its line.
    void cameToIdleCpu() {
        if (activity_ != Activity::runnable || lineOfCpu_ == kNoThread) return;
        const auto cpu = lastSwitches_.find(static_cast<std::uint32_t>(lineOfCpu_));
        if (cpu == lastSwitches_.end() || cpu->second.next != kIdleThread) return;
        cameUnseen(cpu->second.timeNs);
    }

    void left(const Event& event, const Event* following) {
        if (activity_ == Activity::runnable && event.idleSinceNs != 0) cameUnseen(event.idleSinceNs);
        const Activity next = activityOfState(event.state);
        // Woken between deciding to sleep and leaving the CPU: such a thread comes back without a further wake-up.
        if (isSleep(next) && wokenWhileRunning_ && following != nullptr && following->kind == Event::Kind::came) {
            enter(Activity::runnable, event.timeNs, true, std::nullopt);
        } else {
            enter(next, event.timeNs, true, std::nullopt);
        }
        if (activity_ == Activity::runnable) lineOfCpu_ = event.cpu;
    }

    void woken(const Event& event) {
        if (activity_ == Activity::running) {
            wokenWhileRunning_ = true;
        } else if (activity_ != Activity::runnable && activity_ != Activity::gone) {
            enter(Activity::runnable, event.timeNs, true,
                  Waker{.tid = event.waker, .byInterrupt = event.byInterrupt, .cpu = event.cpu});
            lineOfCpu_ = event.targetCpu;
        }
    }

    // Ends what went on until now, and begins the next.
    void enter(Activity next, std::uint64_t nowNs, bool hasEnded, const std::optional<Waker>& waker) {
        const Interval interval{since_, nowNs};
        const std::uint64_t inWindow = interval.common(known_).length();
        timeline_.at(activity_) += inWindow;
        timeline_.strip.add(activity_, interval.common(known_));
        if (inWindow > 0 && (isSleep(activity_) || activity_ == Activity::runnable)) {
            note({.activity = activity_,
                  .interval = interval,
                  .hasEnded = hasEnded,
                  .waker = waker,
                  .inWindowNs = inWindow});
        }
        activity_ = next;
        since_ = nowNs;
        wokenWhileRunning_ = false;
        lineOfCpu_ = kNoThread;
    }

    void note(const Wait& wait) {
        auto& waits = timeline_.longestWaits;
        waits.push_back(wait);
        if (waits.size() > 8 * ThreadTimelineBuilder::kMostWaits) keepLongest(waits, ThreadTimelineBuilder::kMostWaits);
        if (!wait.hasEnded) timeline_.ongoing = wait;
        if (!isSleep(wait.activity)) return;
        ++timeline_.sleeps;
        if (!wait.waker) return;
        auto& wakers = timeline_.wakers;
        const auto known = wakers.find(*wait.waker);
        if (known == wakers.end() && wakers.size() >= ThreadTimelineBuilder::kMostWakers) return;
        ThreadTimeline::Waking& waking = wakers[*wait.waker];
        ++waking.count;
        waking.sleptNs += wait.inWindowNs;
    }

    Interval known_;
    Interval covered_;
    ThreadTimeline timeline_;
    Activity activity_ = Activity::unknown;
    std::uint64_t since_ = 0;
    bool wokenWhileRunning_ = false;
    std::int32_t lineOfCpu_ = kNoThread;  // while it is runnable: the CPU that it was woken for, or was pushed off
    const LastSwitches& lastSwitches_;
};

void ThreadTimelineBuilder::push(const Event& event) {
    if (events_.size() < kMostEvents) {
        events_.push_back(event);
    } else {
        tooMany_ = true;
    }
}

void ThreadTimelineBuilder::add(const SchedEvent& event) {
    Event mine{.timeNs = event.timeNs, .cpu = static_cast<std::uint16_t>(event.cpu)};
    if (event.kind == SchedEvent::Kind::woken) {
        if (event.next != tid_) return;
        mine.kind = Event::Kind::woken;
        mine.waker = event.previous;
        mine.byInterrupt = event.byInterrupt;
        mine.targetCpu = event.targetCpu;
        push(mine);
        return;
    }
    ThreadTimelineBuilder::LastSwitch& last = lastSwitches_[event.cpu];
    if (event.timeNs >= last.timeNs) last = {.timeNs = event.timeNs, .next = event.next};
    if (event.previous == tid_) {
        mine.idleSinceNs = event.idleSinceNs;
        mine.kind = Event::Kind::left;
        mine.state = static_cast<std::uint8_t>(event.previousState);
        push(mine);
    }
    if (event.next == tid_) {
        mine.idleSinceNs = 0;
        mine.kind = Event::Kind::came;
        push(mine);
    }
}

ThreadTimeline ThreadTimelineBuilder::finish(const Interval& window, const Interval& covered, const ThreadHints& hints,
                                             std::size_t slices) {
    if (tooMany_) {
        ThreadTimeline nothing;
        nothing.window = window;
        nothing.events = events_.size();
        nothing.tooManyEvents = true;
        nothing.strip = StateStrip(window, slices);
        nothing.at(Activity::unknown) = window.length();
        return nothing;
    }
    if (hints.leftNs && hints.leftState) {
        push({.timeNs = *hints.leftNs,
              .kind = Event::Kind::left,
              .state = static_cast<std::uint8_t>(*hints.leftState & thread_state::kAll)});
    }
    std::ranges::stable_sort(events_, [](const Event& one, const Event& other) {
        return one.timeNs != other.timeNs ? one.timeNs < other.timeNs : one.kind < other.kind;
    });
    return TimelineWalk(window, covered, lastSwitches_, slices).run(events_, hints);
}

}  // namespace quorvix::report
