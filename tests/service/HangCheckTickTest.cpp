#include "tests/support/DaemonWorld.h"

namespace quorvix::test {
namespace {

using ::testing::ElementsAre;

constexpr std::uint64_t kDay = 2'073'600'000'001;

// A tick's own decisions: tracing is off, so that no timer ticks beside the test. Mail has no credits left.
class HangCheckTick : public DaemonWorld {
protected:
    void SetUp() override {
        const PropertyListValue on(true);
        prefer("QuorvixEnableAppActivationLogging", on, kQuorvixDomain);
        start();
        device.log.clear();
        hangState().appCredits["Mail"] = 0;
    }
    std::uint32_t credits() { return hangState().appCredits["Mail"]; }
    std::size_t dailyResets() {
        std::size_t count = 0;
        for (const auto& operation : device.counters.operations()) {
            count += operation.key == "com.norvane.quorvix.QXLogsGeneratedAtDailyReset";
        }
        return count;
    }
    // Mail is watched, and the log is empty.
    void watchMail() {
        app = watch(412);
        device.log.clear();
    }

    App app;
};

// When app credits come back.

TEST_F(HangCheckTick, GivesCreditsBackAfterMoreThanAQuarterOfThePeriod) {
    settings().reportPeriodTicks = 60'000;
    hangCheckTick();
    ASSERT_EQ(credits(), 1u);
    advanceMs(14'999);
    hangCheckTick();
    EXPECT_EQ(credits(), 1u);
    advanceMs(1);
    hangCheckTick();
    EXPECT_EQ(credits(), 1u) << "exactly a quarter";
    advanceMs(1);
    hangCheckTick();
    EXPECT_EQ(credits(), 2u);
    EXPECT_EQ(settings().lastCreditRefillTicks, now());
}

TEST_F(HangCheckTick, CountsTheQuarterFromTheTickThatGaveCreditsBack) {
    settings().reportPeriodTicks = 60'000;
    hangCheckTick();
    advanceMs(40'000);
    hangCheckTick();
    EXPECT_EQ(credits(), 2u) << "one, however late";
    advanceMs(15'000);
    hangCheckTick();
    EXPECT_EQ(credits(), 2u);
}

TEST_F(HangCheckTick, CutsTheQuarterToWholeTicks) {
    settings().reportPeriodTicks = 7;
    hangCheckTick();
    advanceMs(1);
    hangCheckTick();
    EXPECT_EQ(credits(), 1u);
    advanceMs(1);
    hangCheckTick();
    EXPECT_EQ(credits(), 2u);
}

TEST_F(HangCheckTick, GivesNothingBackInTheFirstQuarterAfterTheDeviceStarted) {
    settings().reportPeriodTicks = now() * 4;
    hangCheckTick();
    EXPECT_EQ(credits(), 0u);
    advanceMs(1);
    hangCheckTick();
    EXPECT_EQ(credits(), 1u);
}

TEST_F(HangCheckTick, APeriodOfZeroGivesCreditsBackAtEveryTick) {
    settings().reportPeriodTicks = 0;
    hangCheckTick();
    advanceMs(1);
    hangCheckTick();
    EXPECT_EQ(credits(), 2u);
}

TEST_F(HangCheckTick, ThePeriodsLargestValueNeverGivesCreditsBack) {
    settings().reportPeriodTicks = std::numeric_limits<std::uint64_t>::max();
    advanceMs(1'000'000'000'000);
    hangCheckTick();
    EXPECT_EQ(credits(), 0u);
}

TEST_F(HangCheckTick, ARefillInTheFutureIsLongAgo) {
    settings().lastCreditRefillTicks = now() + 1;
    hangCheckTick();
    EXPECT_EQ(credits(), 1u) << "the difference is unsigned";
}

// When the day's reports come back.

TEST_F(HangCheckTick, TheFirstTickBeginsTheDay) {
    hangState().dailyLogCredits = 3;
    hangCheckTick();
    EXPECT_EQ(settings().dailyPeriodStartTicks, now());
    EXPECT_EQ(hangState().dailyLogCredits, 3);
    EXPECT_EQ(dailyResets(), 0u);
}

TEST_F(HangCheckTick, TheDayEndsAtItsLastTickAndNotBefore) {
    hangCheckTick();
    hangState().dailyLogCredits = 3;
    advanceMs(kDay - 1);
    hangCheckTick();
    EXPECT_EQ(dailyResets(), 0u);
    advanceMs(1);
    hangCheckTick();
    EXPECT_EQ(dailyResets(), 1u);
    EXPECT_EQ(hangState().dailyLogCredits, 25);
    EXPECT_EQ(settings().dailyPeriodStartTicks, now());
}

TEST_F(HangCheckTick, ALateTickEndsTheDayOnceAndBeginsTheNextThen) {
    hangCheckTick();
    advanceMs(kDay + 1);
    hangCheckTick();
    EXPECT_EQ(dailyResets(), 1u);
    advanceMs(kDay - 1);
    hangCheckTick();
    EXPECT_EQ(dailyResets(), 1u);
    advanceMs(1);
    hangCheckTick();
    EXPECT_EQ(dailyResets(), 2u);
}

TEST_F(HangCheckTick, ADayThatBeginsInTheFutureIsOver) {
    settings().dailyPeriodStartTicks = now() + 1;
    hangCheckTick();
    EXPECT_EQ(dailyResets(), 1u) << "the difference is unsigned";
}

TEST_F(HangCheckTick, LooksForHangsAfterCreditsAndDayAreSettled) {
    settings().swivexEnabled = true;
    installTraceLibrary();
    watchMail();
    settings().dailyPeriodStartTicks = 1;
    hangState().dailyLogCredits = 0;
    advanceMs(kDay);
    app.begin(0, now() - 6'000);
    hangCheckTick();
    auto lines = texts();
    lines.resize(3);
    EXPECT_THAT(lines, ElementsAre("Mail credits increased to: 1", "Hang Logs Daily Credits reset from 0 to 25",
                                   "Mail: Hang detected 6.00s (main)"));
    EXPECT_EQ(traceLibrary.calls.size(), 1u);
}

TEST_F(HangCheckTick, LooksForHangsWhetherOrNotTheDayEnds) {
    watchMail();
    for (int tick = 0; tick < 2; ++tick) {
        app.begin(0, now() - 6'000);
        hangCheckTick();
    }
    EXPECT_EQ(countText("Mail: Hang detected 6.00s (main)"), 2u);
}

}  // namespace
}  // namespace quorvix::test
