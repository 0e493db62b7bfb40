#include "tests/activation/ActivationWorld.h"

namespace quorvix::test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr WallTime utc(int year, unsigned month, unsigned day, std::chrono::seconds ofDay) {
    return std::chrono::sys_days(std::chrono::year(year) / static_cast<int>(month) / static_cast<int>(day)) + ofDay;
}

class Midnight : public ActivationWorld {
protected:
    static std::string setTo(const std::string& date) {
        return "info: QXActivationStats: Setting Timer to fire at " + date + " +0000";
    }
    static std::string fired(const std::string& date, const std::string& planned) {
        return "info: QXActivationStats: Timer Fired at " + date + " +0000. Scheduled date was:" + planned + " +0000";
    }
    void setWall(WallTime time) { device.scheduler.setWallClock(time); }
    Lines startedAt(WallTime time) {
        setWall(time);
        (void)tracker();
        return lines();
    }
    Lines linesAfter(std::chrono::nanoseconds duration) {
        device.log.clear();
        device.scheduler.advance(duration);
        return lines();
    }
    void useNewYork() {
        // Clocks go forward at 2026-03-08 07:00 UTC and back at 2026-11-01 06:00 UTC.
        device.wallClock.setTimeZone([](WallTime time) -> std::chrono::seconds {
            return time >= utc(2026, 3, 8, 7h) && time < utc(2026, 11, 1, 6h) ? -4h : -5h;
        });
    }
};

TEST_F(Midnight, StartsTheDayAnew) {
    EXPECT_THAT(startedAt(utc(2026, 1, 15, 12h)), ElementsAre(setTo("2026-01-16 00:00:00")));
    activationState().activationsRecordedCount = 200;
    perfState().largestTrackedPid = 5000;
    EXPECT_THAT(linesAfter(12h - 1s), IsEmpty());
    EXPECT_EQ(recorded(), 200u);
    EXPECT_THAT(linesAfter(1s),
                ElementsAre(fired("2026-01-16 00:00:00", "2026-01-16 00:00:00"), setTo("2026-01-17 00:00:00")));
    EXPECT_EQ(recorded(), 0u);
    EXPECT_EQ(perfState().largestTrackedPid, -1);
}

TEST_F(Midnight, LetsActivationsPassAgain) {
    settings().maxActivationCount = 1;
    end();
    end();
    EXPECT_EQ(sentCount(), 1u);
    device.scheduler.advance(12h);
    end();
    EXPECT_EQ(sentCount(), 2u);
}

TEST_F(Midnight, ComesEveryDay) {
    startedAt(utc(2026, 1, 15, 12h));
    Lines said = linesAfter(24h * 5);
    EXPECT_EQ(said.size(), 10u);
    EXPECT_EQ(said.back(), setTo("2026-01-21 00:00:00"));
}

TEST_F(Midnight, ExactlyNowMeansTheNextOne) {
    EXPECT_THAT(startedAt(utc(2026, 1, 16, 0h)), ElementsAre(setTo("2026-01-17 00:00:00")));
}

TEST_F(Midnight, IsWaitedForInWholeSeconds) {
    startedAt(utc(2026, 1, 15, 23h + 59min + 58s) + 500ms);  // a second and a half: cut to one
    EXPECT_THAT(linesAfter(999ms), IsEmpty());
    EXPECT_EQ(linesAfter(1ms).front(), fired("2026-01-15 23:59:59", "2026-01-16 00:00:00"));
}

TEST_F(Midnight, OneSecondAwayIsWaitedFor) {
    startedAt(utc(2026, 1, 15, 23h + 59min + 59s));
    EXPECT_EQ(linesAfter(1s).front(), fired("2026-01-16 00:00:00", "2026-01-16 00:00:00"));
}

TEST_F(Midnight, LessThanASecondAwayIsArmedAMinuteAhead) {
    EXPECT_THAT(startedAt(utc(2026, 1, 15, 23h + 59min + 59s) + 1ms), ElementsAre(setTo("2026-01-16 00:00:00")));
    EXPECT_THAT(linesAfter(59'999ms), IsEmpty());
    EXPECT_EQ(linesAfter(1ms).front(), fired("2026-01-16 00:00:59", "2026-01-16 00:00:00"));
}

TEST_F(Midnight, NeverSpinsBeforeIt) {
    startedAt(utc(2026, 1, 15, 23h + 59min + 57s) + 700ms);
    EXPECT_EQ(linesAfter(70s).size(), 4u);
}

TEST_F(Midnight, IsTheZones) {
    device.wallClock.setTimeZone(9h);
    EXPECT_THAT(startedAt(utc(2026, 1, 15, 12h)), ElementsAre(setTo("2026-01-15 15:00:00")));
}

TEST_F(Midnight, FollowsAChangeOfZoneFromTheNextOneOn) {
    startedAt(utc(2026, 1, 15, 12h));
    device.wallClock.setTimeZone(-8h);
    EXPECT_THAT(linesAfter(12h),
                ElementsAre(fired("2026-01-16 00:00:00", "2026-01-16 00:00:00"), setTo("2026-01-16 08:00:00")));
}

TEST_F(Midnight, ComesAfter23HoursWhereClocksGoForward) {
    useNewYork();
    startedAt(utc(2026, 3, 8, 4h));
    EXPECT_THAT(linesAfter(1h),
                ElementsAre(fired("2026-03-08 05:00:00", "2026-03-08 05:00:00"), setTo("2026-03-09 04:00:00")));
    EXPECT_THAT(linesAfter(23h),
                ElementsAre(fired("2026-03-09 04:00:00", "2026-03-09 04:00:00"), setTo("2026-03-10 04:00:00")));
}

TEST_F(Midnight, ComesAfter25HoursWhereClocksGoBack) {
    useNewYork();
    startedAt(utc(2026, 11, 1, 3h));
    linesAfter(1h);
    EXPECT_THAT(linesAfter(25h - 1s), IsEmpty());
    EXPECT_EQ(linesAfter(1s).front(), fired("2026-11-02 05:00:00", "2026-11-02 05:00:00"));
}

// Clocks go forward at midnight: the day begins at one o'clock.
TEST_F(Midnight, ThatIsSkippedIsTheDaysFirstMoment) {
    device.wallClock.setTimeZone(
        [](WallTime time) -> std::chrono::seconds { return time >= utc(2026, 9, 6, 4h) ? -3h : -4h; });
    EXPECT_THAT(startedAt(utc(2026, 9, 5, 12h)), ElementsAre(setTo("2026-09-06 04:00:00")));
    EXPECT_THAT(linesAfter(16h),
                ElementsAre(fired("2026-09-06 04:00:00", "2026-09-06 04:00:00"), setTo("2026-09-07 03:00:00")));
}

// A zone that crosses the date line has no such day at all.
TEST_F(Midnight, OfADayThatIsSkippedIsTheNextDays) {
    device.wallClock.setTimeZone(
        [](WallTime time) -> std::chrono::seconds { return time >= utc(2011, 12, 30, 10h) ? 14h : -10h; });
    EXPECT_THAT(startedAt(utc(2011, 12, 30, 9h)), ElementsAre(setTo("2011-12-30 10:00:00")));
    EXPECT_THAT(linesAfter(1h),
                ElementsAre(fired("2011-12-30 10:00:00", "2011-12-30 10:00:00"), setTo("2011-12-31 10:00:00")));
}

TEST_F(Midnight, ComesWhenTheWallClockIsSetPastIt) {
    startedAt(utc(2026, 1, 15, 12h));
    activationState().activationsRecordedCount = 7;
    device.log.clear();
    setWall(utc(2026, 1, 20, 6h));
    EXPECT_THAT(lines(),
                ElementsAre(fired("2026-01-20 06:00:00", "2026-01-16 00:00:00"), setTo("2026-01-21 00:00:00")));
    EXPECT_EQ(recorded(), 0u);
}

TEST_F(Midnight, WaitsForTheWallClockThatIsSetBack) {
    startedAt(utc(2026, 1, 15, 12h));
    device.log.clear();
    setWall(utc(2026, 1, 14, 12h));
    EXPECT_THAT(linesAfter(36h - 1s), IsEmpty());
    EXPECT_EQ(linesAfter(1s).front(), fired("2026-01-16 00:00:00", "2026-01-16 00:00:00"));
}

TEST_F(Midnight, WaitsOnTheWallClockAlone) {
    startedAt(utc(2026, 1, 15, 12h));
    device.log.clear();
    device.scheduler.advanceMonotonicOnly(48h);
    EXPECT_THAT(lines(), IsEmpty());
}

class FirstUnlock : public Midnight {};

TEST_F(FirstUnlock, ForgetsTheLargestPidAndNothingElse) {
    (void)tracker();
    activationState().activationsRecordedCount = 7;
    perfState().largestTrackedPid = 5000;
    perfState().otherProcessesSent = true;
    device.log.clear();
    device.notifications.post("com.norvane.mobile.sentinad.first_unlock");
    EXPECT_EQ(perfState().largestTrackedPid, 5000);
    device.scheduler.runPending();
    EXPECT_EQ(perfState().largestTrackedPid, -1);
    EXPECT_EQ(recorded(), 7u);
    EXPECT_TRUE(perfState().otherProcessesSent);
    EXPECT_THAT(lines(), ElementsAre("info: QXActivationStats: First unlock; resetting largest tracked pid"));
}

TEST_F(FirstUnlock, IsDeliveredOnTheOutputQueue) {
    (void)tracker();
    EXPECT_THAT(device.notifications.registrations(),
                ElementsAre(sim::SimNotifications::Registration{"com.norvane.mobile.sentinad.first_unlock",
                                                                "com.norvane.quorvix.perfstats.logoutput"}));
}

TEST_F(FirstUnlock, IsDoneWithoutWhereItCannotBeAskedFor) {
    device.notifications.faults.failNext("registerHandler", {EIO});
    end();
    EXPECT_EQ(sentCount(), 1u);
}

}  // namespace
}  // namespace quorvix::test
