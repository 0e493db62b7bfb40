#include "platform/linux/CounterExport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "tests/support/TemporaryFolder.h"

namespace quorvix::linuxos {
namespace {

using testing::HasSubstr;
using testing::Not;

class CounterExportTest : public testing::Test {
protected:
    void add(std::string_view key, std::int64_t value) { EXPECT_EQ(batch_.add(key, value), std::nullopt); }
    void push(const std::string& hang, std::string_view process, double sample) {
        const std::string key = std::string(kCounterPrefix) + hang + "." + std::string(process);
        EXPECT_EQ(batch_.push(key, process, sample), std::nullopt);
    }
    // The exported text.
    std::string exported() {
        CounterRefusals none;
        EXPECT_EQ(database_.write(batch_, WallTime{}, none), std::nullopt);
        batch_ = {};
        EXPECT_EQ(CounterExport(folder_.path()).write(database_, refusals_), std::nullopt);
        return tests::readWholeFile(file());
    }
    std::string file() const { return folder_.path("quorvix.prom"); }

    tests::TemporaryFolder folder_;
    CounterDatabase database_{folder_.path()};
    CounterBatch batch_;
    CounterRefusals refusals_;
};

TEST_F(CounterExportTest, ShowsAHistogramInSeconds) {
    push("main-loop", "demo", 5000);
    push("main-loop", "demo", 5210.5);
    push("main-loop", "demo", 2e6);
    const std::string text = exported();
    const std::string labels = R"({hang="main-loop",process="demo")";
    EXPECT_THAT(text, HasSubstr("# TYPE quorvix_hang_duration_seconds histogram\n"));
    for (const char* line : {",le=\"0.001\"} 0\n", ",le=\"2.0\"} 0\n", ",le=\"5.0\"} 1\n", ",le=\"10.0\"} 2\n",
                             ",le=\"1000.0\"} 2\n", ",le=\"+Inf\"} 3\n"}) {
        EXPECT_THAT(text, HasSubstr("quorvix_hang_duration_seconds_bucket" + labels + line));
    }
    EXPECT_THAT(text, HasSubstr("quorvix_hang_duration_seconds_sum" + labels + "} 2010.2105\n"));
    EXPECT_THAT(text, HasSubstr("quorvix_hang_duration_seconds_count" + labels + "} 3\n"));
    EXPECT_THAT(text, HasSubstr("quorvix_hang_duration_longest_seconds" + labels + "} 2000\n"));
}

TEST_F(CounterExportTest, ProcessNamesAndHangNamesWithDotsStayWhole) {
    push("main", "python3.11", 1000);
    push("network.request", "python3.11", 1000);
    push("network.request", "app", 1000);
    push("", "app", 1000);
    const std::string text = exported();
    for (const char* labels :
         {R"({hang="main",process="python3.11"} 1)", R"({hang="network.request",process="python3.11"} 1)",
          R"({hang="network.request",process="app"} 1)", R"({hang="",process="app"} 1)"}) {
        EXPECT_THAT(text, HasSubstr(std::string("\nquorvix_hang_duration_seconds_count") + labels + "\n"));
    }
    EXPECT_THAT(text, HasSubstr("\nquorvix_series_left_out 0\n"));
}

TEST_F(CounterExportTest, GivesEachScalarItsMetric) {
    add(kFenceHangKey, 4);
    add(kProcessLimitTotalKey, 5);
    add(kGlobalLimitTotalKey, 6);
    add("com.norvane.quorvix.QXLogsMissedDueToProcessLimit.org.example.app", 7);
    add("com.norvane.quorvix.QXLogsMissedDueToGlobalLimit.app", 8);
    add(kDailyResetKey, -2);
    add("something else", 9);
    const std::string text = exported();
    for (const char* line :
         {"\nquorvix_fence_hangs_total 4\n", "\nquorvix_reports_missed_total{limit=\"process\"} 5\n",
          "\nquorvix_reports_missed_total{limit=\"device\"} 6\n",
          "\nquorvix_process_reports_missed_total{limit=\"process\",process=\"org.example.app\"} 7\n",
          "\nquorvix_process_reports_missed_total{limit=\"device\",process=\"app\"} 8\n",
          "\nquorvix_reports_at_daily_reset -2\n", "\nquorvix_other_scalar{key=\"something else\"} 9\n"}) {
        EXPECT_THAT(text, HasSubstr(line));
    }
}

TEST_F(CounterExportTest, WhatClientsChooseStaysInsideALabel) {
    push("a\"} 1\nevil_metric{x=\"", "app", 1);
    push("back\\slash", "\xff", 1);
    const std::string text = exported();
    EXPECT_THAT(text, Not(HasSubstr("\nevil_metric")));
    EXPECT_THAT(text, HasSubstr(R"({hang="a\"} 1\nevil_metric{x=\"",process="app"})"));
    EXPECT_THAT(text, HasSubstr("{hang=\"back\\\\slash\",process=\"\xEF\xBF\xBD\"}"));
}

TEST_F(CounterExportTest, KeysThatBecomeTheSameTextAreShownOnceAndCounted) {
    push("kind", "\xff", 1);
    push("kind", "\xfe", 1);
    push("kind", "\xEF\xBF\xBD", 1);
    const std::string text = exported();
    const std::string line = "quorvix_hang_duration_seconds_count{hang=\"kind\",process=\"\xEF\xBF\xBD\"} 1\n";
    EXPECT_EQ(text.find(line), text.rfind(line));
    EXPECT_THAT(text, HasSubstr(line));
    // Two left out of each of the two metrics.
    EXPECT_THAT(text, HasSubstr("quorvix_series_left_out 4\n"));
}

TEST_F(CounterExportTest, ShowsWhatWasRefused) {
    refusals_.add(CounterRefusal::tableFull);
    refusals_.add(CounterRefusal::processFull);
    refusals_.add(CounterRefusal::processFull);
    const std::string text = exported();
    EXPECT_THAT(text, HasSubstr("quorvix_refused_changes_total{reason=\"table_full\"} 1\n"));
    EXPECT_THAT(text, HasSubstr("quorvix_refused_changes_total{reason=\"process_full\"} 2\n"));
    EXPECT_TRUE(text.ends_with("# EOF\n"));
}

TEST_F(CounterExportTest, ReplacesTheFileWholeAndLeavesNothingElse) {
    add(kFenceHangKey, 1);
    exported();
    struct stat status {};
    ASSERT_EQ(stat(file().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0644u);
    add(kFenceHangKey, 1);
    EXPECT_THAT(exported(), HasSubstr("\nquorvix_fence_hangs_total 2\n"));
    EXPECT_FALSE(std::filesystem::exists(folder_.path("quorvix.prom.new")));
}

TEST_F(CounterExportTest, NeverWritesThroughALinkInItsPlace) {
    tests::writeWholeFile(folder_.path("victim"), "untouched");
    std::filesystem::create_symlink(folder_.path("victim"), folder_.path("quorvix.prom.new"));
    std::filesystem::create_symlink(folder_.path("victim"), file());
    exported();
    EXPECT_EQ(tests::readWholeFile(folder_.path("victim")), "untouched");
    EXPECT_FALSE(std::filesystem::is_symlink(file()));
}

TEST_F(CounterExportTest, DoesNothingWithoutItsFolder) {
    EXPECT_EQ(CounterExport(folder_.path("missing")).write(database_, refusals_), std::nullopt);
    EXPECT_FALSE(std::filesystem::exists(folder_.path("missing")));
}

TEST_F(CounterExportTest, FailsWhereAFileIsItsFolder) {
    tests::writeWholeFile(folder_.path("file"), "");
    EXPECT_NE(CounterExport(folder_.path("file")).write(database_, refusals_), std::nullopt);
}

// Needs promtool (Debian package prometheus).
TEST_F(CounterExportTest, IsAcceptedByPrometheus) {
    if (std::system("command -v promtool >/dev/null") != 0) GTEST_SKIP() << "promtool is not installed";
    for (const std::string_view fixed : kFixedCounterKeys) add(fixed, 1);
    add("com.norvane.quorvix.QXLogsMissedDueToProcessLimit.app", 7);
    add(std::string("odd\0\n\"\\ \xff key", 13), 1);
    push("main-loop", "demo", 5210.5);
    push("kind", "\xff", 1e300);
    push("kind", "\xfe", 1);
    exported();
    EXPECT_EQ(std::system(("promtool check metrics < " + file()).c_str()), 0);
    tests::writeWholeFile(folder_.path("broken"), tests::readWholeFile(file()) + "quorvix_broken{label=\n");
    EXPECT_NE(std::system(("promtool check metrics < " + folder_.path("broken") + " 2>/dev/null").c_str()), 0);
}

}  // namespace
}  // namespace quorvix::linuxos
