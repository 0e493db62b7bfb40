#include "platform/linux/Signposts.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "tests/support/PrivateMounts.h"
#include "tests/support/TemporaryFolder.h"

namespace quorvix::linuxos {
namespace {

constexpr std::string_view kBegin = "appLaunch processBundleId=%{signpost.telemetry:string1}s";
constexpr std::string_view kEnd =
    "cpu=%{signpost.telemetry:number1}llu io=%{signpost.telemetry:number2}lluenableTelemetry=YES";

// A plain file stands in the marker's place.
class SignpostsTest : public testing::Test {
protected:
    void arm() { tests::writeWholeFile(marker_, ""); }
    std::string pid() const { return std::to_string(getpid()); }

    tests::TemporaryFolder folder_;
    std::string marker_ = folder_.path("trace_marker");
    LinuxSignposts signposts_{marker_};
};

TEST_F(SignpostsTest, IsOffWithoutItsMarker) {
    EXPECT_FALSE(signposts_.enabled());
    arm();
    EXPECT_TRUE(signposts_.enabled());
    std::filesystem::remove(marker_);
    EXPECT_FALSE(signposts_.enabled());
}

TEST_F(SignpostsTest, ALaunchIsASliceWithItsTextBeside) {
    arm();
    signposts_.intervalBegin(42, "appLaunch", kBegin, {.string1 = "com.example", .number1 = {}, .number2 = {}});
    signposts_.intervalEnd(42, "appLaunch", kEnd, {.string1 = "com.example", .number1 = 7, .number2 = 8});
    EXPECT_EQ(tests::readWholeFile(marker_), "S|" + pid() + "|appLaunch|42\nI|" + pid() +
                                                 "|appLaunch processBundleId=com.example\nF|" + pid() +
                                                 "|appLaunch|42\nI|" + pid() + "|cpu=7 io=8enableTelemetry=YES\n");
}

TEST_F(SignpostsTest, WritesToTheMarkerThatReplacedAnother) {
    arm();
    signposts_.intervalBegin(1, "a", "", {});
    std::filesystem::rename(marker_, folder_.path("old"));
    arm();
    signposts_.intervalBegin(2, "b", "", {});
    EXPECT_TRUE(tests::readWholeFile(marker_).starts_with("S|" + pid() + "|b|2\n"));
    EXPECT_EQ(tests::readWholeFile(folder_.path("old")).find("|b|"), std::string::npos);
}

TEST_F(SignpostsTest, WhatAClientSentMakesNoLinesOfItsOwn) {
    arm();
    signposts_.intervalBegin(1, "a", kBegin, {.string1 = "x\nF|1|a|1", .number1 = {}, .number2 = {}});
    const std::string text = tests::readWholeFile(marker_);
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2);
}

TEST_F(SignpostsTest, ALongTextIsCutToALine) {
    arm();
    const std::string longName(60'000, 'x');
    signposts_.intervalBegin(1, "a", kBegin, {.string1 = longName, .number1 = {}, .number2 = {}});
    EXPECT_LT(tests::readWholeFile(marker_).size(), 1100u);
}

TEST_F(SignpostsTest, AnEventWithoutAMarkerIsCounted) {
    signposts_.intervalBegin(1, "a", "", {});
    const JsonObject counters = signposts_.selfCounters();
    ASSERT_EQ(counters.members()[1].first, "failed");
    EXPECT_EQ(std::get<std::uint64_t>(counters.members()[1].second.content()), 1u);
}

TEST(SignpostTextTest, PlaceholdersAreFilledAndTheRestStays) {
    EXPECT_EQ(signpostText("a %{signpost.telemetry:number1}llu", {.string1 = "", .number1 = {}, .number2 = {}}), "a 0");
    EXPECT_EQ(signpostText("%{signpost.telemetry:string1}", {.string1 = "s", .number1 = {}, .number2 = {}}), "s");
    EXPECT_EQ(signpostText("cut %{signpost.telemetry:str", {}), "cut %{signpost.telemetry:str");
    EXPECT_EQ(signpostText("", {}), "");
}

// Needs root and a kernel with tracefs; the instance is made for the test and removed with it.
TEST(RealTraceTest, AnIntervalStandsInTheInstancesTrace) {
    const int status = tests::runInPrivateMounts([] {
        const tests::TemporaryFolder mountPoint;
        if (mount("tracefs", mountPoint.path().c_str(), "tracefs", 0, nullptr) != 0) return tests::kCannotUnshare;
        const std::string instance = mountPoint.path("instances/quorvix-test-" + std::to_string(getpid()));
        std::error_code error;
        if (!std::filesystem::create_directory(instance, error)) return tests::kCannotUnshare;
        std::string trace;
        bool on = false;
        {
            LinuxSignposts signposts(instance + "/trace_marker");
            on = signposts.enabled();
            signposts.intervalBegin(42, "appLaunch", kBegin, {.string1 = "com.example", .number1 = {}, .number2 = {}});
            signposts.intervalEnd(42, "appLaunch", kEnd, {.string1 = "", .number1 = 1, .number2 = 2});
            trace = tests::readWholeFile(instance + "/trace");
        }
        std::filesystem::remove(instance, error);
        umount2(mountPoint.path().c_str(), MNT_DETACH);
        const std::string pid = std::to_string(getpid());
        const bool whole = trace.find("S|" + pid + "|appLaunch|42") != std::string::npos &&
                           trace.find("I|" + pid + "|appLaunch processBundleId=com.example") != std::string::npos &&
                           trace.find("F|" + pid + "|appLaunch|42") != std::string::npos;
        return on && whole && !error ? 0 : 1;
    });
    if (status == tests::kCannotUnshare) GTEST_SKIP() << "needs root and tracefs";
    EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace quorvix::linuxos
