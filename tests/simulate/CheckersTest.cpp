// Each checker alone: a bad state fails with the checker's text, a good one does not. The model, which compares first
// in a run, is left out or made to agree.

#include "simulate/Checkers.h"

#include <gtest/gtest.h>

#include <string>

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

}  // namespace
}  // namespace quorvix::simulate
