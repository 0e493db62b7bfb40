#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <vector>

#include "report/Activity.h"
#include "report/SchedEvents.h"
#include "report/StateStrip.h"

namespace quorvix::report {

struct Waker {
    std::int32_t tid = kNoThread;
    bool byInterrupt = false;  // a timer or device did it; the thread only was on the CPU
    std::uint32_t cpu = 0;
    bool operator<(const Waker& other) const {
        return byInterrupt != other.byInterrupt ? byInterrupt < other.byInterrupt : tid < other.tid;
    }
};

// A time in which the thread could not go on. It may reach out of the window on both sides.
struct Wait {
    Activity activity = Activity::sleeping;
    Interval interval{};           // begin 0: it began before anything that is known
    bool hasEnded = false;         // false: it lasts as long as the file knows
    std::optional<Waker> waker{};  // who ended it, where an event says so
    std::uint64_t inWindowNs = 0;  // how much of it lies in the window
};

// What one thread did over a window: the times add up to the window.
struct ThreadTimeline {
    Interval window;
    std::array<std::uint64_t, kActivities> timeNs{};
    std::vector<Wait> longestWaits;  // the longest in the window first
    std::optional<Wait> ongoing;     // what had not ended when the file does
    std::uint64_t sleeps = 0;        // how often it slept, either way
    std::uint64_t events = 0;        // of this thread, outside the window too
    bool tooManyEvents = false;      // then all is unknown
    struct Waking {
        std::uint64_t count = 0;
        std::uint64_t sleptNs = 0;  // in the window, before these wake-ups
    };
    std::map<Waker, Waking> wakers;
    StateStrip strip;  // the same in a picture's columns, where they were asked for

    std::uint64_t at(Activity activity) const { return timeNs[static_cast<std::size_t>(activity)]; }
    std::uint64_t& at(Activity activity) { return timeNs[static_cast<std::size_t>(activity)]; }
};

// What is known of the thread besides its events.
struct ThreadHints {
    std::optional<std::uint64_t> leftNs;     // when it last left a CPU before the window,
    std::optional<std::uint32_t> leftState;  // and in which state; without the time: its state at the dump
};

// The state letter of procfs as the bits of scheduling events; nothing for a letter that is none.
std::optional<std::uint32_t> stateOfLetter(char letter);
Activity activityOfState(std::uint32_t state);

// Gathers the events of one thread, in any order, and makes its timeline of them.
class ThreadTimelineBuilder {
public:
    // Of one thread; a ring holds fewer unless it is very large. What is beyond makes the timeline unknown.
    static constexpr std::size_t kMostEvents = std::size_t{1} << 21;
    static constexpr std::size_t kMostWaits = 32;
    static constexpr std::size_t kMostWakers = 256;

    explicit ThreadTimelineBuilder(std::int32_t tid) : tid_(tid) {}

    void add(const SchedEvent& event);

    // Covered: what the recorder held; outside of it nothing is known. Slices: of the timeline's strip.
    ThreadTimeline finish(const Interval& window, const Interval& covered, const ThreadHints& hints = {},
                          std::size_t slices = 0);

private:
    struct Event {
        enum class Kind : std::uint8_t { left, woken, came };  // in the order in which they follow at one instant
        std::uint64_t timeNs = 0;
        std::int32_t waker = kNoThread;
        std::uint16_t cpu = 0;
        Kind kind = Kind::left;
        std::uint8_t state = 0;
        bool byInterrupt = false;
        // woken: the CPU in whose line it was put; left: see SchedEvent
        std::int32_t targetCpu = kNoThread;
        std::uint64_t idleSinceNs = 0;
    };
    // The newest switch of a CPU.
    struct LastSwitch {
        std::uint64_t timeNs = 0;
        std::int32_t next = kNoThread;
    };

    void push(const Event& event);

    std::int32_t tid_;
    std::vector<Event> events_;
    std::map<std::uint32_t, LastSwitch> lastSwitches_;
    bool tooMany_ = false;

    friend class TimelineWalk;
};

}  // namespace quorvix::report
