#include "ctl/Pruning.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace quorvix::ctl {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using namespace std::chrono_literals;

constexpr std::chrono::system_clock::time_point kNow{std::chrono::hours(500000)};
constexpr PruneLimits kWide{.keptOwners = 256, .age = std::chrono::days(30), .bytes = 1'000'000};

StoredReport report(std::string name, std::string owner, std::chrono::seconds age, std::uint64_t bytes = 1) {
    return {.fileName = std::move(name), .owner = std::move(owner), .written = kNow - age, .bytes = bytes};
}

TEST(Pruning, AReportGoesWhenItIsOlderThanTheAgeAndNotBefore) {
    const auto reports = [](std::chrono::seconds age) {
        return std::vector{report("new", "app", 0s), report("old", "app", age)};
    };
    EXPECT_THAT(reportsToPrune(reports(std::chrono::days(30)), kWide, kNow), IsEmpty());
    EXPECT_THAT(reportsToPrune(reports(std::chrono::days(30) + 1s), kWide, kNow), ElementsAre("old"));
}

TEST(Pruning, TheOldestGoUntilAllThatIsLeftFitsTheSize) {
    const std::vector reports{report("a", "app", 1s, 400), report("b", "app", 2s, 300), report("c", "app", 3s, 200),
                              report("d", "app", 4s, 100)};
    const auto prunedTo = [&](std::uint64_t bytes) {
        PruneLimits limits = kWide;
        limits.bytes = bytes;
        return reportsToPrune(reports, limits, kNow);
    };
    EXPECT_THAT(prunedTo(1000), IsEmpty());
    EXPECT_THAT(prunedTo(999), ElementsAre("d"));
    EXPECT_THAT(prunedTo(900), ElementsAre("d"));
    EXPECT_THAT(prunedTo(899), ElementsAre("d", "c"));
    EXPECT_THAT(prunedTo(0), ElementsAre("d", "c", "b"));
}

TEST(Pruning, TheNewestOfAnAppStaysHoweverOldItIsAndHoweverManyAnotherWrites) {
    std::vector<StoredReport> reports{report("quiet", "quiet", std::chrono::days(400), 10)};
    for (int index = 0; index < 50; ++index) {
        reports.push_back(report("loud-" + std::to_string(10 + index), "loud", std::chrono::seconds(index), 10));
    }
    PruneLimits limits = kWide;
    limits.bytes = 20;
    const std::vector<std::string> pruned = reportsToPrune(reports, limits, kNow);
    EXPECT_EQ(pruned.size(), 49u);
    EXPECT_EQ(std::ranges::count(pruned, "quiet"), 0);
    EXPECT_EQ(std::ranges::count(pruned, "loud-10"), 0) << "the newest of its own";
}

TEST(Pruning, PastTheNumberOfAppsTheNewestReportsOfTheOthersGoLikeAny) {
    std::vector<StoredReport> reports;
    for (int index = 0; index < 4; ++index) {
        const std::string name = "app" + std::to_string(index);
        reports.push_back(report(name, name, std::chrono::seconds(index), 10));
    }
    PruneLimits limits = kWide;
    limits.bytes = 0;
    limits.keptOwners = 4;
    EXPECT_THAT(reportsToPrune(reports, limits, kNow), IsEmpty());
    limits.keptOwners = 3;
    EXPECT_THAT(reportsToPrune(reports, limits, kNow), ElementsAre("app3"));
}

TEST(Pruning, WhatIsKeptCountsTowardsTheSize) {
    const std::vector reports{report("big", "one", 1s, 900), report("other", "two", 2s, 90),
                              report("old", "two", 3s, 11)};
    PruneLimits limits = kWide;
    limits.bytes = 1000;
    EXPECT_THAT(reportsToPrune(reports, limits, kNow), ElementsAre("old"));
}

TEST(Pruning, AReportFromTheFutureIsNotOld) {
    EXPECT_THAT(reportsToPrune({report("b", "app", -std::chrono::days(99)), report("a", "app", 0s)}, kWide, kNow),
                IsEmpty());
}

TEST(Pruning, ReportsOfOneMomentGoInTheOrderOfTheirNames) {
    PruneLimits limits = kWide;
    limits.bytes = 1;
    EXPECT_THAT(reportsToPrune({report("b", "app", 1s), report("c", "app", 1s), report("a", "app", 1s)}, limits, kNow),
                ElementsAre("a", "b"));
}

}  // namespace
}  // namespace quorvix::ctl
