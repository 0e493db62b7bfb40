#include "tests/support/DaemonWorld.h"

namespace quorvix::test {
namespace {

constexpr std::string_view kSnapshotLine = "Memory snapshot written: ";

class Timers : public DaemonWorld {
protected:
    using DaemonWorld::DaemonWorld;
    void startWith(std::string_view key) {
        prefer(key, true);
        device.files.addDirectory("/Library/Logs/Faultbox");
        start();
        device.log.clear();
    }
    // Mail is watched; each check of hangs reads its region once.
    void watchMail() {
        app = watch(412);
        device.log.clear();
        checksBefore = device.regions.guardedCalls();
    }
    std::uint64_t checks() { return device.regions.guardedCalls() - checksBefore; }
    std::size_t snapshots() {
        const auto lines = device.log.texts("platform");
        const auto tells = [](const std::string& line) { return line.starts_with(kSnapshotLine); };
        return static_cast<std::size_t>(std::count_if(lines.begin(), lines.end(), tells));
    }
    std::size_t dailyResets() {
        std::size_t count = 0;
        for (const auto& operation : device.counters.operations()) {
            count += operation.key == "com.norvane.quorvix.QXLogsGeneratedAtDailyReset";
        }
        return count;
    }

    App app;
    std::uint64_t checksBefore = 0;
};

class TimersInDeviceTicks : public Timers {
protected:
    TimersInDeviceTicks() : Timers(sim::SimTickClock::kDeviceTicks) {}
};

// The timer of the hang check.

TEST_F(Timers, TheHangCheckRunsEveryFiveSeconds) {
    startWith("QuorvixEnabled");
    watchMail();
    advanceMs(4'999);
    EXPECT_EQ(checks(), 0u);
    advanceMs(1);
    EXPECT_EQ(checks(), 1u);
    advanceMs(4'999);
    EXPECT_EQ(checks(), 1u);
    advanceMs(1);
    EXPECT_EQ(checks(), 2u);
    advanceMs(3'600'000);
    EXPECT_EQ(checks(), 722u);
}

TEST_F(Timers, TheHangCheckMayComeASecondLateAndNoLater) {
    device.scheduler.setLeewayUse(sim::SimScheduler::LeewayUse::full);
    startWith("QuorvixEnabled");
    watchMail();
    advanceMs(5'999);
    EXPECT_EQ(checks(), 0u);
    advanceMs(1);
    EXPECT_EQ(checks(), 1u);
}

TEST_F(Timers, ARefreshKeepsTheHangChecksRhythm) {
    startWith("QuorvixEnabled");
    watchMail();
    advanceMs(3'000);
    refresh();
    advanceMs(2'000);
    EXPECT_EQ(checks(), 1u);
}

TEST_F(Timers, NoHangCheckRunsWhileTracingIsOff) {
    prefer("QuorvixEnableAppActivationLogging", true, kQuorvixDomain);
    startWith("QuorvixEnabled");
    prefer("QuorvixEnabled", false);
    refresh();
    watchMail();
    advanceMs(60'000);
    EXPECT_EQ(checks(), 0u);
    EXPECT_EQ(device.scheduler.waitingCount(), 0u) << "nothing wakes an idle daemon";
}

TEST_F(Timers, TheHangCheckStartsAnewWhenTracingIsSwitchedOnAgain) {
    prefer("QuorvixEnableAppActivationLogging", true, kQuorvixDomain);
    startWith("QuorvixEnabled");
    advanceMs(3'000);
    prefer("QuorvixEnabled", false);
    refresh();
    prefer("QuorvixEnabled", true);
    refresh();
    watchMail();
    advanceMs(4'999);
    EXPECT_EQ(checks(), 0u);
    advanceMs(1);
    EXPECT_EQ(checks(), 1u);
}

TEST_F(Timers, AnIdleDaemonHasNoOtherTimer) {
    startWith("QuorvixEnabled");
    EXPECT_EQ(device.scheduler.waitingCount(), 1u);
}

TEST_F(Timers, StepsOfTheWallClockMoveNoTick) {
    startWith("QuorvixEnabled");
    watchMail();
    device.scheduler.setWallClock(device.scheduler.wallNow() + std::chrono::hours(1000));
    EXPECT_EQ(checks(), 0u);
    device.scheduler.setWallClock(device.scheduler.wallNow() - std::chrono::hours(5000));
    advanceMs(4'999);
    EXPECT_EQ(checks(), 0u);
    advanceMs(1);
    EXPECT_EQ(checks(), 1u);
}

TEST_F(Timers, ADayDoesNotEndByAStepOfTheWallClock) {
    startWith("QuorvixEnabled");
    advanceMs(5'000);
    device.scheduler.setWallClock(device.scheduler.wallNow() + std::chrono::hours(48));
    advanceMs(5'000);
    EXPECT_EQ(dailyResets(), 0u);
}

// What the ticks of the timer decide.

TEST_F(Timers, APeriodOfAMinuteGivesCreditsBackAtTheTickAfterFifteenSeconds) {
    prefer("QuorvixReportPeriod", 60);
    startWith("QuorvixEnabled");
    advanceMs(5'000);
    hangState().appCredits["Mail"] = 0;
    advanceMs(15'000);
    EXPECT_EQ(hangState().appCredits["Mail"], 0u);
    advanceMs(5'000);
    EXPECT_EQ(hangState().appCredits["Mail"], 1u);
    advanceMs(20'000);
    EXPECT_EQ(hangState().appCredits["Mail"], 2u);
}

TEST_F(TimersInDeviceTicks, ADayOfFiveSecondTicksEndsOneTickAfterTwentyFourHours) {
    startWith("QuorvixEnabled");
    advanceMs(5'000);
    advanceMs(86'400'000);
    EXPECT_EQ(dailyResets(), 0u);
    advanceMs(5'000);
    EXPECT_EQ(dailyResets(), 1u);
}

TEST_F(TimersInDeviceTicks, AWeekOfHangsKeepsToBothBudgets) {
    startWithHangTracing();
    watchMail();
    for (int minute = 0; minute < 7 * 24 * 60; ++minute) {
        app.begin(0, now());
        advanceMs(60'000);
    }
    // A day lasts 86405 s and a quarter period 905 s, since both are noticed at the tick after: six days end.
    EXPECT_EQ(dailyResets(), 6u);
    EXPECT_EQ(device.counters.scalar("com.norvane.quorvix.QXLogsGeneratedAtDailyReset"), 25);
    EXPECT_EQ(settings().lastCreditRefillTicks, (1005 + 668 * 905) * std::uint64_t{24'000'000});
    EXPECT_EQ(traceLibrary.calls.size(), 7 * 25u);
    EXPECT_EQ(device.counters.distribution("com.norvane.quorvix.main.Mail").size(), 7 * 24 * 60u);
}

// The timer of the memory snapshots.

TEST_F(Timers, SnapshotsComeEveryHourUnlessToldOtherwise) {
    startWith("QuorvixEnableMemoryLogging");
    advanceMs(3'599'999);
    EXPECT_EQ(snapshots(), 0u);
    advanceMs(1);
    EXPECT_EQ(snapshots(), 1u);
    advanceMs(3'600'000);
    EXPECT_EQ(snapshots(), 2u);
}

TEST_F(Timers, SnapshotsMayComeASecondLateAndNoLater) {
    device.scheduler.setLeewayUse(sim::SimScheduler::LeewayUse::full);
    startWith("QuorvixEnableMemoryLogging");
    advanceMs(3'600'999);
    EXPECT_EQ(snapshots(), 0u);
    advanceMs(1);
    EXPECT_EQ(snapshots(), 1u);
}

TEST_F(Timers, TheIntervalThatIsSetAtTheStartIsInForceAtOnce) {
    prefer("QuorvixMemoryLoggingInterval", 600);
    startWith("QuorvixEnableMemoryLogging");
    advanceMs(599'999);
    EXPECT_EQ(snapshots(), 0u);
    advanceMs(1);
    EXPECT_EQ(snapshots(), 1u);
}

TEST_F(Timers, AChangedIntervalCountsFromTheChange) {
    startWith("QuorvixEnableMemoryLogging");
    advanceMs(3'000'000);
    prefer("QuorvixMemoryLoggingInterval", 601);
    refresh();
    EXPECT_EQ(levelOf("refreshPreferences: change memoryLoggingInterval to 601"), LogLevel::info);
    advanceMs(600'999);
    EXPECT_EQ(snapshots(), 0u);
    advanceMs(1);
    EXPECT_EQ(snapshots(), 1u);
}

TEST_F(Timers, TheSameIntervalAgainNeitherRearmsNorSpeaks) {
    prefer("QuorvixMemoryLoggingInterval", 600);
    startWith("QuorvixEnableMemoryLogging");
    advanceMs(400'000);
    refresh();
    EXPECT_FALSE(hasText("refreshPreferences: change memoryLoggingInterval to 600"));
    advanceMs(200'000);
    EXPECT_EQ(snapshots(), 1u);
}

TEST_F(Timers, TheDefaultIntervalWrittenOutIsNoChange) {
    prefer("QuorvixMemoryLoggingInterval", 3600);
    prefer("QuorvixEnableMemoryLogging", true);
    start();
    EXPECT_FALSE(hasText("refreshPreferences: change memoryLoggingInterval to 3600"));
}

TEST_F(Timers, AnIntervalSetWhileSnapshotsAreOffIsKept) {
    startWith("QuorvixEnabled");
    prefer("QuorvixMemoryLoggingInterval", 600);
    refresh();
    EXPECT_TRUE(hasText("refreshPreferences: change memoryLoggingInterval to 600"));
    device.preferences.change("QuorvixMemoryLoggingInterval", std::nullopt, kDaemonDomain);
    prefer("QuorvixEnableMemoryLogging", true);
    refresh();
    advanceMs(600'000);
    EXPECT_EQ(snapshots(), 1u);
}

TEST_F(Timers, SnapshotsStopWhenTheyAreSwitchedOff) {
    prefer("QuorvixEnabled", true);
    startWith("QuorvixEnableMemoryLogging");
    prefer("QuorvixEnableMemoryLogging", false);
    refresh();
    EXPECT_FALSE(settings().memoryLoggingTimer);
    advanceMs(7'200'000);
    EXPECT_EQ(snapshots(), 0u);
}

TEST_F(Timers, AnIntervalOfZeroComesNoFasterThanItsLeeway) {
    startWith("QuorvixEnableMemoryLogging");
    prefer("QuorvixMemoryLoggingInterval", 0);
    refresh();
    EXPECT_TRUE(hasText("refreshPreferences: change memoryLoggingInterval to 0"));
    advanceMs(10'000);
    EXPECT_EQ(snapshots(), 11u) << "at once, then every second";
}

class UnreachableInterval : public Timers, public ::testing::WithParamInterface<PropertyListValue> {};

TEST_P(UnreachableInterval, IsTheLargestNumberOfSeconds) {
    prefer("QuorvixMemoryLoggingInterval", GetParam());
    prefer("QuorvixEnableMemoryLogging", true);
    device.files.addDirectory("/Library/Logs/Faultbox");
    start();
    EXPECT_TRUE(hasText("refreshPreferences: change memoryLoggingInterval to 4294967295"));
    advanceMs(4'294'967'294'999);
    EXPECT_EQ(snapshots(), 0u);
    advanceMs(1);
    EXPECT_EQ(snapshots(), 1u);
}

INSTANTIATE_TEST_SUITE_P(Each, UnreachableInterval,
                         ::testing::Values(PropertyListValue(-1), PropertyListValue(1e300),
                                           PropertyListValue(std::int64_t{4'294'967'295})));

}  // namespace
}  // namespace quorvix::test
