#include "report/Verdict.h"

#include <gtest/gtest.h>

namespace quorvix::report {
namespace {

struct Times {
    std::uint64_t running = 0, runnable = 0, sleeping = 0, uninterruptible = 0, stopped = 0, gone = 0, unknown = 0;
};

ThreadTimeline timelineOf(const Times& times) {
    ThreadTimeline timeline;
    timeline.at(Activity::running) = times.running;
    timeline.at(Activity::runnable) = times.runnable;
    timeline.at(Activity::sleeping) = times.sleeping;
    timeline.at(Activity::uninterruptible) = times.uninterruptible;
    timeline.at(Activity::stopped) = times.stopped;
    timeline.at(Activity::gone) = times.gone;
    timeline.at(Activity::unknown) = times.unknown;
    std::uint64_t length = 0;
    for (const std::uint64_t time : timeline.timeNs) length += time;
    timeline.window = {0, length};
    return timeline;
}

Cause causeOf(const Times& times) { return judge(timelineOf(times)).cause; }

TEST(Verdict, TheLargestShareDecides) {
    EXPECT_EQ(causeOf({.running = 51, .runnable = 49}), Cause::busy);
    EXPECT_EQ(causeOf({.running = 49, .runnable = 51}), Cause::starved);
    EXPECT_EQ(causeOf({.running = 49, .sleeping = 51}), Cause::blocked);
    EXPECT_EQ(causeOf({.running = 51, .sleeping = 49}), Cause::busy);
    EXPECT_EQ(causeOf({.running = 49, .uninterruptible = 51}), Cause::io);
    EXPECT_EQ(causeOf({.running = 51, .uninterruptible = 49}), Cause::busy);
    EXPECT_EQ(causeOf({.runnable = 49, .stopped = 51}), Cause::stopped);
    EXPECT_EQ(causeOf({.runnable = 51, .stopped = 49}), Cause::starved);
}

TEST(Verdict, OnATieItIsWhatIsLeastTheThreadsOwnDoing) {
    EXPECT_EQ(causeOf({.running = 50, .runnable = 50}), Cause::starved);
    EXPECT_EQ(causeOf({.runnable = 50, .sleeping = 50}), Cause::blocked);
    EXPECT_EQ(causeOf({.sleeping = 50, .stopped = 50}), Cause::stopped);
}

TEST(Verdict, BothKindsOfWaitingCountTogetherAgainstTheRest) {
    EXPECT_EQ(causeOf({.running = 40, .sleeping = 31, .uninterruptible = 29}), Cause::blocked);
    EXPECT_EQ(causeOf({.running = 40, .sleeping = 30, .uninterruptible = 30}), Cause::io);
    EXPECT_EQ(causeOf({.running = 40, .sleeping = 29, .uninterruptible = 31}), Cause::io);
    EXPECT_EQ(causeOf({.running = 61, .sleeping = 20, .uninterruptible = 19}), Cause::busy);
}

TEST(Verdict, HalfOfTheHangMustBeKnown) {
    EXPECT_EQ(causeOf({.running = 500, .unknown = 500}), Cause::busy);
    EXPECT_EQ(causeOf({.running = 499, .unknown = 501}), Cause::unknown);
    EXPECT_EQ(causeOf({.running = 499, .gone = 501}), Cause::unknown) << "a thread that is gone does not hang";
    EXPECT_EQ(causeOf({.unknown = 100}), Cause::unknown);
    EXPECT_EQ(causeOf({}), Cause::unknown);
}

TEST(Verdict, ACloseSecondIsTold) {
    EXPECT_EQ(judge(timelineOf({.running = 549, .runnable = 451})).remarks.size(), 1U);
    EXPECT_EQ(judge(timelineOf({.running = 551, .runnable = 449})).remarks.size(), 0U);
}

TEST(Verdict, MoreEventsThanAreLookedAtAreNoVerdict) {
    ThreadTimeline timeline = timelineOf({.running = 100});
    timeline.tooManyEvents = true;
    EXPECT_EQ(judge(timeline).cause, Cause::unknown);
}

// So many sleeps of equal length, and one of another.
bool polls(std::uint64_t sleeps, std::uint64_t longest) {
    ThreadTimeline timeline = timelineOf({.sleeping = 1000});
    timeline.sleeps = sleeps;
    timeline.longestWaits = {{.activity = Activity::runnable, .interval = {}, .inWindowNs = 5000},
                             {.activity = Activity::sleeping, .interval = {}, .inWindowNs = longest}};
    return judge(timeline).isPolling;
}

TEST(Verdict, ManySleepsOfWhichNoneIsLongArePolling) {
    EXPECT_TRUE(polls(kLeastPolls, 250));
    EXPECT_FALSE(polls(kLeastPolls, 251));
    EXPECT_FALSE(polls(kLeastPolls - 1, 250));
}

Times ongoing(Activity activity, WaitPlace::Kind kind) {
    ThreadTimeline timeline = timelineOf({.running = 100, .unknown = 100});
    timeline.at(Activity::unknown) = 0;
    timeline.at(activity) += 100;
    timeline.ongoing =
        Wait{.activity = activity, .interval = {100, 200}, .hasEnded = false, .waker = {}, .inWindowNs = 100};
    applyWaitPlace(timeline, {.kind = kind, .text = "", .function = ""});
    return {.running = timeline.at(Activity::running),
            .runnable = timeline.at(Activity::runnable),
            .sleeping = timeline.at(Activity::sleeping),
            .uninterruptible = timeline.at(Activity::uninterruptible),
            .stopped = timeline.at(Activity::stopped)};
}

TEST(Verdict, TheStackOfAnOngoingWaitCorrectsWhatItsStateSeemsToSay) {
    using enum WaitPlace::Kind;
    EXPECT_EQ(ongoing(Activity::sleeping, io).uninterruptible, 100U) << "a sleep in a file system";
    EXPECT_EQ(ongoing(Activity::uninterruptible, lock).sleeping, 100U) << "a lock is no device";
    EXPECT_EQ(ongoing(Activity::uninterruptible, event).sleeping, 100U) << "a parent that waits for its child";
    EXPECT_EQ(ongoing(Activity::uninterruptible, frozen).stopped, 100U);
    EXPECT_EQ(ongoing(Activity::sleeping, frozen).stopped, 100U);
    EXPECT_EQ(ongoing(Activity::sleeping, none).sleeping, 100U);
    EXPECT_EQ(ongoing(Activity::uninterruptible, none).uninterruptible, 100U);
    EXPECT_EQ(ongoing(Activity::runnable, io).runnable, 100U) << "what could run does not wait";
    EXPECT_EQ(ongoing(Activity::stopped, io).stopped, 100U);
}

TEST(Verdict, WaitsThatHaveEndedStayWhatTheyWere) {
    ThreadTimeline timeline = timelineOf({.sleeping = 100});
    applyWaitPlace(timeline, {.kind = WaitPlace::Kind::io, .text = "", .function = ""});
    EXPECT_EQ(timeline.at(Activity::sleeping), 100U);
}

TEST(WaitPlace, TheInnermostFunctionThatIsKnownTells) {
    const std::string stack[] = {"schedule", "io_schedule", "folio_wait_bit_common", "filemap_read"};
    EXPECT_EQ(waitPlaceOf(stack).function, "io_schedule");
    const std::string lockStack[] = {"schedule", "rwsem_down_read_slowpath", "down_read", "exc_page_fault"};
    EXPECT_EQ(waitPlaceOf(lockStack).kind, WaitPlace::Kind::lock);
    EXPECT_EQ(waitPlaceOf({}).kind, WaitPlace::Kind::none);
    const std::string unknown[] = {"schedule", "something_new"};
    EXPECT_EQ(waitPlaceOf(unknown).kind, WaitPlace::Kind::none);
}

}  // namespace
}  // namespace quorvix::report
