#include "platform/TimerRules.h"

#include <gtest/gtest.h>

namespace quorvix::timer {
namespace {

using namespace std::chrono_literals;

TEST(TimerRules, SumsStayAtTheEndsOfTime) {
    EXPECT_EQ(saturatingAdd(Nanoseconds::max(), 1ns), Nanoseconds::max());
    EXPECT_EQ(saturatingAdd(Nanoseconds::max() - 1ns, 1ns), Nanoseconds::max());
    EXPECT_EQ(saturatingAdd(Nanoseconds::min(), -1ns), Nanoseconds::min());
    EXPECT_EQ(saturatingAdd(2ns, -3ns), -1ns);
}

TEST(TimerRules, ThePeriodIsTheLongestOfIntervalLeewayAndAMillisecond) {
    EXPECT_EQ(normalised({0ns, 5s, 1s}).interval, 5s);
    EXPECT_EQ(normalised({0ns, 0s, 1s}).interval, 1s);
    EXPECT_EQ(normalised({0ns, 0s, 0s}).interval, 1ms);
    EXPECT_EQ(normalised({0ns, -5s, -1s}).interval, 1ms);
    EXPECT_EQ(normalised({-1s, 0s, -1s}).firstDelay, 0s);
    EXPECT_EQ(normalised({-1s, 0s, -1s}).leeway, 0s);
}

TEST(TimerRules, TheNextDueTimeStaysOnTheGrid) {
    const TimerSchedule schedule = normalised({0ns, 5s, 1s});
    EXPECT_EQ(nextDue(schedule, 10s, 10s, 10s), 15s);
    EXPECT_EQ(nextDue(schedule, 10s, 11s, 11s), 15s);
}

TEST(TimerRules, MissedPeriodsAreLeftOut) {
    const TimerSchedule schedule = normalised({0ns, 5s, 0s});
    EXPECT_EQ(nextDue(schedule, 10s, 10s, 15s - 1ns), 15s);
    EXPECT_EQ(nextDue(schedule, 10s, 10s, 15s), 20s);
    EXPECT_EQ(nextDue(schedule, 10s, 10s, 31s), 35s);
}

TEST(TimerRules, AnIntervalOfItsLeewayKeepsItsPaceWhenWakeUpsAreALittleLate) {
    const TimerSchedule schedule = normalised({0ns, 0s, 1s});
    EXPECT_EQ(nextDue(schedule, 10s, 10s, 10s + 125ms), 11s);
    EXPECT_EQ(nextDue(schedule, 10s, 10s, 10s + 125ms + 1ns), 11s + 125ms + 1ns);
}

TEST(TimerRules, TheFarEndOfTimeIsNotPassed) {
    const TimerSchedule schedule = normalised({0ns, Nanoseconds::max(), 0s});
    EXPECT_EQ(nextDue(schedule, 10s, 10s, 10s), Nanoseconds::max());
}

TEST(TimerRules, TheRoundestMomentOfTheWindowIsChosen) {
    EXPECT_EQ(roundestMoment(5200ms, 6200ms), 6s);
    EXPECT_EQ(roundestMoment(6s, 7s), 6s);
    EXPECT_EQ(roundestMoment(6s + 1ns, 7s), 7s);
    EXPECT_EQ(roundestMoment(6s + 1ns, 7s - 1ns), 6250ms);
    EXPECT_EQ(roundestMoment(6101ms, 6200ms), 6150ms);
    EXPECT_EQ(roundestMoment(6101ms, 6149ms), 6110ms);
    EXPECT_EQ(roundestMoment(6101ms, 6109ms), 6109ms);
    EXPECT_EQ(roundestMoment(6101ms, 6101ms), 6101ms);
}

TEST(TimerRules, TheRoundestMomentAtTheFarEndOfTimeIsThatEnd) {
    EXPECT_EQ(roundestMoment(Nanoseconds::max(), Nanoseconds::max()), Nanoseconds::max());
}

}  // namespace
}  // namespace quorvix::timer
