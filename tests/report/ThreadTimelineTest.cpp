#include "report/ThreadTimeline.h"

#include <gtest/gtest.h>

#include <random>

#include "tests/support/TraceEncoder.h"

namespace quorvix::report {
namespace {

using tests::switched;
using tests::woken;
using namespace thread_state;

constexpr std::int32_t kThread = 10;
constexpr std::int32_t kOther = 20;
constexpr Interval kAsked{1000, 2000};
constexpr Interval kCovered{500, 5000};

ThreadTimeline builtFrom(const std::vector<SchedEvent>& events, const ThreadHints& hints = {},
                         const Interval& covered = kCovered) {
    ThreadTimelineBuilder builder(kThread);
    for (const SchedEvent& event : events) builder.add(event);
    const ThreadTimeline timeline = builder.finish(kAsked, covered, hints);
    std::uint64_t sum = 0;
    for (const std::uint64_t time : timeline.timeNs) sum += time;
    EXPECT_EQ(sum, kAsked.length()) << "the times must add up to the window";
    return timeline;
}

TEST(ThreadTimeline, SumsUpRunningWaitingForACpuAndSleeping) {
    const auto timeline =
        builtFrom({switched(900, kOther, 0, kThread), switched(1200, kThread, 0, kOther),
                   switched(1300, kOther, 0, kThread), switched(1500, kThread, kInterruptible, kOther),
                   woken(1700, kOther, kThread), switched(1750, kOther, 0, kThread)});
    EXPECT_EQ(timeline.at(Activity::running), 200U + 200 + 250);
    EXPECT_EQ(timeline.at(Activity::runnable), 100U + 50);
    EXPECT_EQ(timeline.at(Activity::sleeping), 200U);
    EXPECT_EQ(timeline.at(Activity::unknown), 0U);
    EXPECT_EQ(timeline.sleeps, 1U);
}

// Some kernels record no switch of a CPU that leaves idling.
SchedEvent leftAnIdleCpu(std::uint64_t timeNs, std::uint32_t state, std::uint64_t idleSinceNs) {
    SchedEvent event = switched(timeNs, kThread, state, 0);
    event.idleSinceNs = idleSinceNs;
    return event;
}

SchedEvent wokenForCpu(std::uint64_t timeNs, std::int32_t cpu) {
    SchedEvent event = woken(timeNs, kOther, kThread);
    event.targetCpu = cpu;
    return event;
}

TEST(ThreadTimeline, AThreadThatLeavesAnIdleCpuHadComeToItUnseen) {
    const auto timeline = builtFrom({switched(1100, kThread, kInterruptible, 0), woken(1300, kOther, kThread),
                                     leftAnIdleCpu(1700, kInterruptible, 1100)});
    EXPECT_EQ(timeline.at(Activity::running), 100U + 400);
    EXPECT_EQ(timeline.at(Activity::runnable), 0U);
    EXPECT_EQ(timeline.at(Activity::sleeping), 200U + 300);
}

TEST(ThreadTimeline, ItCameNoEarlierThanTheCpuWasIdle) {
    const auto timeline = builtFrom({switched(1100, kThread, kInterruptible, 0), woken(1300, kOther, kThread),
                                     leftAnIdleCpu(1700, kInterruptible, 1500)});
    EXPECT_EQ(timeline.at(Activity::running), 100U + 200);
    EXPECT_EQ(timeline.at(Activity::runnable), 200U);
}

TEST(ThreadTimeline, AThreadThatLeavesABusyCpuUnseenWaitedForIt) {
    const auto timeline = builtFrom({switched(1100, kThread, kInterruptible, 0), woken(1300, kOther, kThread),
                                     switched(1700, kThread, kInterruptible, 0)});
    EXPECT_EQ(timeline.at(Activity::running), 100U);
    EXPECT_EQ(timeline.at(Activity::runnable), 400U);
}

TEST(ThreadTimeline, WokenForAnIdleCpuThatNeverSwitchesAgainItRuns) {
    const auto events = [](std::int32_t cpu) {
        return std::vector<SchedEvent>{switched(1100, kThread, kInterruptible, 0), wokenForCpu(1300, cpu)};
    };
    const std::int32_t idle = static_cast<std::int32_t>(events(0).front().cpu);
    EXPECT_EQ(builtFrom(events(idle)).at(Activity::running), 100U + 700);
    EXPECT_EQ(builtFrom(events(idle + 1)).at(Activity::runnable), 700U);
}

TEST(ThreadTimeline, ACpuDoesNotStayIdleWithAThreadInItsLine) {
    const auto woken =
        builtFrom({switched(1100, kThread, kInterruptible, 0), wokenForCpu(1300, 0), switched(1400, kOther, 0, 0)});
    EXPECT_EQ(woken.at(Activity::runnable), 100U);
    EXPECT_EQ(woken.at(Activity::running), 100U + 600);
    const auto pushedOff = builtFrom({switched(1100, kThread, 0, kOther), switched(1400, kOther, kInterruptible, 0)});
    EXPECT_EQ(pushedOff.at(Activity::runnable), 300U);
    EXPECT_EQ(pushedOff.at(Activity::running), 100U + 600);
}

TEST(ThreadTimeline, InTheLineOfACpuThatRunsOthersItWaits) {
    const auto timeline = builtFrom({switched(1100, kThread, 0, kOther), switched(1400, kOther, 0, kOther + 1)});
    EXPECT_EQ(timeline.at(Activity::runnable), 900U);
}

TEST(ThreadTimeline, EachStateOfTheKernelIsOneActivity) {
    const auto doing = [](std::uint32_t state) {
        const auto timeline = builtFrom({switched(1000, kThread, state, kOther)});
        for (std::size_t at = 0; at < kActivities; ++at) {
            if (timeline.timeNs[at] == kAsked.length()) return static_cast<Activity>(at);
        }
        return Activity::unknown;
    };
    EXPECT_EQ(doing(0), Activity::runnable);
    EXPECT_EQ(doing(kInterruptible), Activity::sleeping);
    EXPECT_EQ(doing(kParked), Activity::sleeping);
    EXPECT_EQ(doing(kIdle), Activity::sleeping);
    EXPECT_EQ(doing(kUninterruptible), Activity::uninterruptible);
    EXPECT_EQ(doing(kStopped), Activity::stopped);
    EXPECT_EQ(doing(kTraced), Activity::stopped);
    EXPECT_EQ(doing(kDead), Activity::gone);
    EXPECT_EQ(doing(kZombie), Activity::gone);
}

TEST(ThreadTimeline, AThreadThatLeavesFirstRanBefore) {
    EXPECT_EQ(builtFrom({switched(1400, kThread, kInterruptible, 0)}).at(Activity::running), 400U);
}

TEST(ThreadTimeline, AThreadThatIsWokenFirstSleptBefore) {
    EXPECT_EQ(builtFrom({woken(1400, kOther, kThread)}).at(Activity::sleeping), 400U);
}

TEST(ThreadTimeline, AThreadThatComesFirstWaitedForACpuBefore) {
    const auto timeline = builtFrom({switched(1400, kOther, 0, kThread)});
    EXPECT_EQ(timeline.at(Activity::runnable), 400U);
    EXPECT_EQ(timeline.at(Activity::running), 600U);
}

TEST(ThreadTimeline, AThreadWithoutAnyEventIsInTheStateInWhichItLeft) {
    const auto timeline = builtFrom({}, {.leftNs = 700, .leftState = kInterruptible});
    EXPECT_EQ(timeline.at(Activity::sleeping), kAsked.length());
    ASSERT_TRUE(timeline.ongoing);
    EXPECT_EQ(timeline.ongoing->interval.beginNs, 700U);
}

TEST(ThreadTimeline, AThreadThatWasPushedOutAndNeverCameBackStarves) {
    EXPECT_EQ(builtFrom({}, {.leftNs = 700, .leftState = 0}).at(Activity::runnable), kAsked.length());
}

TEST(ThreadTimeline, WithoutAnyEventTheStateAtTheDumpHeldAllTheTime) {
    EXPECT_EQ(builtFrom({}, {.leftNs = {}, .leftState = kUninterruptible}).at(Activity::uninterruptible),
              kAsked.length());
}

TEST(ThreadTimeline, ThatItCouldRunAtTheDumpDoesNotTellWhetherItRan) {
    EXPECT_EQ(builtFrom({}, {.leftNs = {}, .leftState = 0}).at(Activity::unknown), kAsked.length());
}

TEST(ThreadTimeline, NothingIsKnownOutsideOfWhatTheRecorderHeld) {
    const auto timeline = builtFrom({switched(900, kOther, 0, kThread)}, {}, {1250, 1900});
    EXPECT_EQ(timeline.at(Activity::running), 650U);
    EXPECT_EQ(timeline.at(Activity::unknown), 350U);
}

TEST(ThreadTimeline, NothingAtAllIsKnownWithoutARecorder) {
    EXPECT_EQ(builtFrom({}, {.leftNs = {}, .leftState = kInterruptible}, {}).at(Activity::unknown), kAsked.length());
}

TEST(ThreadTimeline, AWakeUpAfterTheHangEndsItsLastWait) {
    const auto timeline = builtFrom(
        {switched(1100, kThread, kInterruptible, 0), woken(2500, kOther, kThread), switched(2600, 0, 0, kThread)});
    EXPECT_EQ(timeline.at(Activity::sleeping), 900U);
    ASSERT_EQ(timeline.longestWaits.size(), 1U);
    const Wait& wait = timeline.longestWaits[0];
    EXPECT_TRUE(wait.hasEnded);
    EXPECT_EQ(wait.interval.endNs, 2500U);
    EXPECT_EQ(wait.inWindowNs, 900U);
    ASSERT_TRUE(wait.waker);
    EXPECT_EQ(wait.waker->tid, kOther);
    EXPECT_FALSE(timeline.ongoing);
}

TEST(ThreadTimeline, AWaitThatNeverEndsIsOngoing) {
    const auto timeline = builtFrom({switched(1100, kThread, kInterruptible, 0)});
    ASSERT_TRUE(timeline.ongoing);
    EXPECT_FALSE(timeline.ongoing->hasEnded);
    EXPECT_EQ(timeline.ongoing->inWindowNs, 900U);
}

TEST(ThreadTimeline, WokenBetweenDecidingToSleepAndLeavingIsNoSleep) {
    const auto timeline = builtFrom({switched(1000, 0, 0, kThread), woken(1499, kOther, kThread),
                                     switched(1500, kThread, kInterruptible, 0), switched(1600, 0, 0, kThread)});
    EXPECT_EQ(timeline.at(Activity::sleeping), 0U);
    EXPECT_EQ(timeline.at(Activity::runnable), 100U);
}

TEST(ThreadTimeline, AWakeUpWhileItRanDoesNotHideALaterSleep) {
    const auto timeline = builtFrom({switched(1000, 0, 0, kThread), woken(1100, kOther, kThread),
                                     switched(1500, kThread, kInterruptible, 0), woken(1700, kOther, kThread),
                                     switched(1800, 0, 0, kThread)});
    EXPECT_EQ(timeline.at(Activity::sleeping), 200U);
    EXPECT_EQ(timeline.at(Activity::runnable), 100U);
}

TEST(ThreadTimeline, ASecondWakeUpOfAWokenThreadChangesNothing) {
    const auto timeline = builtFrom({switched(1000, kThread, kInterruptible, 0), woken(1400, kOther, kThread),
                                     woken(1500, 30, kThread), switched(1600, 0, 0, kThread)});
    EXPECT_EQ(timeline.at(Activity::sleeping), 400U);
    EXPECT_EQ(timeline.wakers.size(), 1U);
    EXPECT_EQ(timeline.wakers.begin()->first.tid, kOther);
}

TEST(ThreadTimeline, EventsOfDifferentCpusMayComeInAnyOrder) {
    const auto inOrder = std::vector{switched(1000, 0, 0, kThread), switched(1200, kThread, 0, kOther),
                                     switched(1400, 30, 0, kThread), switched(1900, kThread, kInterruptible, 30)};
    const auto shuffled = std::vector{inOrder[2], inOrder[3], inOrder[0], inOrder[1]};
    EXPECT_EQ(builtFrom(shuffled).timeNs, builtFrom(inOrder).timeNs);
}

TEST(ThreadTimeline, KeepsTheLongestWaitsOfVeryMany) {
    std::vector<SchedEvent> events;
    ThreadTimelineBuilder builder(kThread);
    std::uint64_t time = 0;
    for (std::uint64_t length = 1; length <= 500; ++length) {
        builder.add(switched(time, kThread, kInterruptible, 0));
        time += length;
        builder.add(woken(time, kOther, kThread));
        builder.add(switched(time, 0, 0, kThread));
        time += 5;
    }
    const ThreadTimeline timeline = builder.finish({0, time}, {0, time});
    ASSERT_EQ(timeline.longestWaits.size(), ThreadTimelineBuilder::kMostWaits);
    EXPECT_EQ(timeline.longestWaits.front().inWindowNs, 500U);
    EXPECT_EQ(timeline.longestWaits.back().inWindowNs, 500 - ThreadTimelineBuilder::kMostWaits + 1);
    EXPECT_EQ(timeline.sleeps, 500U);
}

TEST(ThreadTimeline, MoreEventsThanTheLimitMakeItUnknown) {
    for (const std::size_t extra : {std::size_t{0}, std::size_t{1}}) {
        ThreadTimelineBuilder builder(kThread);
        for (std::size_t at = 0; at < ThreadTimelineBuilder::kMostEvents + extra; ++at) {
            builder.add(woken(1000, kOther, kThread));
        }
        EXPECT_EQ(builder.finish(kAsked, kCovered).tooManyEvents, extra == 1);
    }
}

// A thread's life tick by tick, made up at random; the events are what the kernel would have recorded of it. The truth
// is counted tick by tick.
TEST(ThreadTimeline, AgreesWithACountOfEveryTickOfRandomLives) {
    for (std::uint32_t seed = 1; seed <= 300; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::mt19937 random(seed);
        const auto below = [&](std::uint32_t limit) {
            return std::uniform_int_distribution<std::uint32_t>(0, limit - 1)(random);
        };
        constexpr std::uint64_t kEnd = 3000;
        std::vector<Activity> truth;
        std::vector<SchedEvent> events;
        Activity now = Activity::running;
        events.push_back(switched(0, kOther, 0, kThread));
        while (truth.size() < kEnd) {
            truth.insert(truth.end(), 1 + below(below(2) == 0 ? 20 : 400), now);
            const std::uint64_t time = truth.size();
            if (now == Activity::running) {
                constexpr std::uint32_t kStates[] = {0, kInterruptible, kUninterruptible, kStopped, kTraced};
                constexpr Activity kMeaning[] = {Activity::runnable, Activity::sleeping, Activity::uninterruptible,
                                                 Activity::stopped, Activity::stopped};
                const std::uint32_t choice = below(std::size(kStates));
                events.push_back(switched(time, kThread, kStates[choice], kOther));
                now = kMeaning[choice];
            } else if (now == Activity::runnable) {
                events.push_back(switched(time, kOther, 0, kThread));
                now = Activity::running;
            } else {
                events.push_back(woken(time, kOther, kThread));
                now = Activity::runnable;
            }
        }
        const std::uint64_t one = below(kEnd), other = below(kEnd);
        const Interval window{std::min(one, other), std::max(one, other) + 1};
        const Interval covered{below(kEnd), kEnd};
        ThreadTimelineBuilder builder(kThread);
        // What the ring has lost of the past: events before what it covers, but for the last one.
        std::size_t first = 0;
        while (first + 1 < events.size() && events[first + 1].timeNs <= covered.beginNs) ++first;
        std::vector<SchedEvent> kept(events.begin() + static_cast<std::ptrdiff_t>(first), events.end());
        std::ranges::shuffle(kept, random);
        for (const SchedEvent& event : kept) builder.add(event);
        const ThreadTimeline timeline = builder.finish(window, covered);

        std::array<std::uint64_t, kActivities> counted{};
        for (std::uint64_t tick = window.beginNs; tick < window.endNs; ++tick) {
            const bool known = tick >= covered.beginNs && tick < covered.endNs;
            ++counted[static_cast<std::size_t>(known ? truth[tick] : Activity::unknown)];
        }
        ASSERT_EQ(timeline.timeNs, counted);
    }
}

}  // namespace
}  // namespace quorvix::report
