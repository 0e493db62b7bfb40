// Each checker alone: a bad state fails with the checker's text, a good one does not. The model, which compares first
// in a run, is left out or made to agree.

#include "simulate/Checkers.h"

#include <gtest/gtest.h>

#include <csignal>
#include <memory>
#include <string>

#include "hang/HangState.h"
#include "perfstats/PerfState.h"
#include "simulate/Apart.h"

namespace quorvix::simulate {
namespace {

// What a checker says; "" where all is well.
template <class Check>
std::string said(Check check) {
    try {
        check();
    } catch (const Mismatch& mismatch) {
        return mismatch.text;
    }
    return "";
}

TEST(DailyReportsChecker, AllowsTheLimitAndNoMore) {
    DailyReports reports(2);
    for (int i = 0; i < 2; ++i) reports.taken();
    EXPECT_EQ(said([&] { reports.check(2, 0); }), "");
    reports.taken();
    EXPECT_EQ(said([&] { reports.check(3, 0); }), "checker: more reports than a day has");
}

TEST(DailyReportsChecker, AllowsOneMoreForEachLateFenceCapture) {
    DailyReports reports(0);
    reports.taken();
    EXPECT_EQ(said([&] { reports.check(1, 1); }), "");
    reports.taken();
    EXPECT_EQ(said([&] { reports.check(2, 1); }), "checker: more reports than a day has");
}

TEST(DailyReportsChecker, ALimitBelowZeroAllowsNone) {
    DailyReports reports(-4);
    EXPECT_EQ(said([&] { reports.check(0, 0); }), "");
    reports.taken();
    EXPECT_EQ(said([&] { reports.check(1, 0); }), "checker: more reports than a day has");
}

TEST(DailyReportsChecker, TheHighestLimitOfTheDayCounts) {
    DailyReports reports(0);
    reports.limitIs(1);
    reports.limitIs(0);
    reports.taken();
    EXPECT_EQ(said([&] { reports.check(1, 0); }), "");
}

TEST(DailyReportsChecker, TheNumberIsTheModels) {
    DailyReports reports(25);
    reports.taken();
    EXPECT_EQ(said([&] { reports.check(0, 0); }), "checker: the day's reports are not the model's");
}

TEST(FailedRemovals, ExcuseTheFileThatCouldNotBeRemovedAndNoOther) {
    FailedRemovals removals;
    EXPECT_FALSE(removals.excuse("/cache/tmp", "a.swivex"));
    removals.failed("/cache/tmp|a.swivex");
    removals.failed("/cache/|b.ips");
    EXPECT_TRUE(removals.excuse("/cache/tmp", "a.swivex"));
    EXPECT_TRUE(removals.excuse("/cache", "b.ips"));
    EXPECT_FALSE(removals.excuse("/cache", "a.swivex"));
    EXPECT_FALSE(removals.excuse("/cache/tmp", "b.ips"));
    removals.forget();
    EXPECT_FALSE(removals.excuse("/cache", "b.ips"));
}

TEST(HeldMemoryChecker, AllowsWhatTheFirstHoursHeldAndFindsGrowth) {
    HeldMemory memory;
    for (int i = 0; i < 6; ++i) memory.hour(1 << 20);
    EXPECT_EQ(said([&] { memory.hour((1 << 20) + HeldMemory::kSwingBytes); }), "");
    EXPECT_EQ(said([&] { memory.hour((1 << 20) + HeldMemory::kSwingBytes + HeldMemory::kGrowthBytesADay); }),
              "checker: memory grows without bound");
}

TEST(HeldMemoryChecker, CountsWhatIsAllocatedAndNotWhatWasGivenBack) {
    const std::uint64_t before = heldBytes();
    auto kept = std::make_unique<std::string>(100'000, 'x');
    EXPECT_GE(heldBytes(), before + 100'000);
    kept.reset();
    EXPECT_LT(heldBytes(), before + 50'000);
}

TEST(HangsOfAWorkChecker, AllowsOneForEachWatchedProcess) {
    HangsOfAWork hangs;
    const auto two = [](std::string_view name) { return name == "Mail" ? std::size_t{2} : std::size_t{0}; };
    for (int i = 0; i < 2; ++i) hangs.line("I:Mail: Hang detected 6.00s (main)");
    EXPECT_EQ(said([&] { hangs.endOfWork(two); }), "");
    for (int i = 0; i < 3; ++i) hangs.line("I:Mail: Hang detected 6.00s (main)");
    EXPECT_EQ(said([&] { hangs.endOfWork(two); }), "checker: more than one hang of a process in a check");
}

TEST(RunApart, TellsHowARunEnded) {
    const Ending good =
        runApart([](const OnProgress& onProgress) { return onProgress({.actions = 7, .minutes = 3}), 0; });
    EXPECT_FALSE(good.failed);
    EXPECT_EQ(good.progress.actions, 7u);
    EXPECT_EQ(good.progress.minutes, 3u);
    EXPECT_TRUE(runApart([](const OnProgress&) { return 1; }).failed);
    EXPECT_EQ(runApart([](const OnProgress&) { return 1; }).crash, "");
    EXPECT_EQ(runApart([](const OnProgress&) { return raise(SIGKILL); }).crash, "the process ended by signal 9");
}

TEST(RunApart, EndsAStepThatDoesNotEnd) {
    const Ending ending = runApart(
        [](const OnProgress&) {
            for (volatile bool endless = true; endless;) {
            }
            return 0;
        },
        true, 1);
    EXPECT_TRUE(ending.failed);
    EXPECT_TRUE(ending.stuck);
    EXPECT_EQ(ending.crash, "a step does not come to its end");
}

struct CheckersTest : ::testing::Test {
    World world{5};
    Checkers checkers{world};

    void SetUp() override {
        world.setPreference("com.norvane.da", "QuorvixEnabled", true);
        world.start();
        ASSERT_TRUE(world.running());
        ASSERT_EQ(said([&] { checkers.afterStep(); }), "");
        ASSERT_EQ(said([&] { checkers.everyMinute(); }), "");
        ASSERT_EQ(said([&] { checkers.atTheEnd(); }), "");
    }
    std::string step() {
        return said([&] { checkers.afterStep(); });
    }
    std::string minute() {
        return said([&] { checkers.everyMinute(); });
    }
};

TEST_F(CheckersTest, AFileThatStaysOpenIsFound) {
    const auto opened = world.device.files.createFile({kTmp, "open"}, 0644, 4);
    ASSERT_TRUE(opened);
    EXPECT_EQ(step(), "checker: a file was left open");
    world.device.files.close(*opened);
    EXPECT_EQ(step(), "");
}

TEST_F(CheckersTest, AReportThatIsHalfThereIsFound) {
    world.device.files.addFile(std::string(kSpool) + "/half", "TRACE {\"Reason\":\"");
    EXPECT_EQ(minute().find("checker: the report half is half there"), 0u);
}

TEST_F(CheckersTest, WhatWasBegunAndNotRemovedIsFound) {
    world.device.files.addFile(std::string(kTmp) + "/begun", "x");
    EXPECT_EQ(minute(), "checker: a report that was begun lies in the tmp folder");
}

TEST_F(CheckersTest, TwoPendingCapturesAreFound) {
    hangState().fenceHangCapturePending = true;
    EXPECT_EQ(step(), "checker: the pending fence capture is not the model's");
    hangState().fenceHangCapturePending = false;
    EXPECT_EQ(step(), "");
}

TEST_F(CheckersTest, CreditsPastTheirBoundAreFound) {
    hangState().appCredits["Mail"] = 4;
    EXPECT_EQ(step(), "checker: credits of an app above 3");
}

TEST_F(CheckersTest, MemoryOfSnapshotsIsFound) {
    ASSERT_TRUE(perfState().memory.reserve(1));
    EXPECT_EQ(minute(), "checker: memory of snapshots is held without an activation");
    perfState().memory.release(1);
    EXPECT_EQ(minute(), "");
}

}  // namespace
}  // namespace quorvix::simulate
