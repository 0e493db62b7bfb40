#include "ctl/ActivationsCommand.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "platform/linux/PowerLogStore.h"
#include "tests/ctl/Tool.h"
#include "tests/support/PowerLogEvents.h"
#include "tests/support/RecordingLog.h"
#include "tests/support/TemporaryFolder.h"

namespace quorvix::ctl {
namespace {

using testing::ContainsRegex;
using testing::HasSubstr;
using tests::PowerLogEvents;
using Json = nlohmann::json;

constexpr std::uint64_t kLargeID = 0xFEDCBA9876543210u;

// quorvixctl beside a daemon that has the store open.
class Activations : public testing::Test {
protected:
    Activations() { tool.services.powerLogPath = folder.path("wattrel.db"); }
    Json json(std::vector<std::string> arguments) {
        EXPECT_EQ(tool.run(std::move(arguments)), ExitStatus::done) << tool.error.str();
        return Json::parse(tool.out.str());
    }

    tests::TemporaryFolder folder;
    tests::RecordingLog log;
    linuxos::PowerLogStore store{log, {.folder = folder.path()}};
    Tool tool;
};

TEST_F(Activations, WithoutAStoreThereIsOneLine) {
    for (const char* verb : {"list", "stats"}) {
        EXPECT_EQ(tool.run({"activations", verb}), ExitStatus::failed);
        EXPECT_THAT(tool.error.str(), HasSubstr("no activation was stored yet"));
    }
}

TEST_F(Activations, WhatIsNoStoreIsSaid) {
    tests::writeWholeFile(tool.services.powerLogPath, std::string(4096, 'x'));
    EXPECT_EQ(tool.run({"activations", "list"}), ExitStatus::failed);
    EXPECT_THAT(tool.error.str(), HasSubstr("not a database"));
}

TEST_F(Activations, WhatIsNoFileIsNotWaitedFor) {
    ASSERT_EQ(mkfifo(tool.services.powerLogPath.c_str(), 0600), 0);
    EXPECT_EQ(tool.run({"activations", "list"}), ExitStatus::failed);
    EXPECT_THAT(tool.error.str(), HasSubstr("is no plain file"));
    ASSERT_EQ(unlink(tool.services.powerLogPath.c_str()), 0);
    ASSERT_EQ(mkdir(tool.services.powerLogPath.c_str(), 0700), 0);
    EXPECT_EQ(tool.run({"activations", "list"}), ExitStatus::failed);
    EXPECT_THAT(tool.error.str(), HasSubstr("is no plain file"));
}

TEST_F(Activations, ListShowsTheNewestFirst) {
    PowerLogEvents{.activationID = 1, .timestamp = 700000000, .bundleID = "first"}.sendTo(store);
    PowerLogEvents{.activationID = kLargeID, .bundleID = "second\x1b[2J", .type = 2}.sendTo(store);
    EXPECT_EQ(tool.run({"activations", "list"}), ExitStatus::done);
    EXPECT_EQ(tool.out.str(),
              "  ID                    StartedUTC           BundleID    Type    Duration_ms  Result\n"
              "  18364758544493064720  2023-03-08 20:26:40  second?[2J  resume  250          0\n"
              "  1                     2023-03-08 20:26:40  first       launch  250          0\n");
}

TEST_F(Activations, ListTakesALimit) {
    for (std::uint64_t id = 1; id <= 101; ++id) PowerLogEvents{.activationID = id}.sendTo(store);
    EXPECT_EQ(json({"activations", "list", "--json"}).size(), 100u);
    const Json two = json({"activations", "list", "--limit", "2", "--json"});
    ASSERT_EQ(two.size(), 2u);
    EXPECT_EQ(two[0]["ID"], "101");
    EXPECT_EQ(two[1]["ID"], "100");
}

TEST_F(Activations, ShowTakesDecimalAndHexadecimal) {
    PowerLogEvents{.activationID = kLargeID}.sendTo(store);
    for (const char* id : {"18364758544493064720", "0xFEDCBA9876543210", "fedcba9876543210"}) {
        EXPECT_EQ(json({"activations", "show", id, "--json"})["ID"], "18364758544493064720");
    }
}

TEST_F(Activations, ShowGivesRecordProcessesAndMemory) {
    PowerLogEvents{.result = 5, .flags = 0xab}.sendTo(store);
    const Json shown = json({"activations", "show", "7", "--json"});
    EXPECT_EQ(shown["BundleID"], "com.example.app");
    EXPECT_EQ(shown["ActivationResult"], 5);
    EXPECT_EQ(shown["ActivationFlags"], "0xab");
    ASSERT_EQ(shown["Processes"].size(), 2u);
    EXPECT_EQ(shown["Processes"][0]["ProcessName"], "process0");
    EXPECT_EQ(shown["Processes"][1]["TotalCPU_ms"], 101);
    const Json pageIns = shown["Memory"][18];
    EXPECT_EQ(pageIns, (Json{{"Counter", "PageIns"}, {"Start", "1019"}, {"End", "4038"}, {"Delta", 3019}}));
    EXPECT_EQ(tool.run({"activations", "show", "7"}), ExitStatus::done);
    EXPECT_THAT(tool.out.str(), ContainsRegex("BundleID +com.example.app"));
    EXPECT_THAT(tool.out.str(), ContainsRegex("1 +process1 +101 +102 "));
    EXPECT_THAT(tool.out.str(), ContainsRegex("PageIns +1019 +4038 +3019"));
}

TEST_F(Activations, ShowsTheConsolesLayout) {
    PowerLogEvents{}.sendTo(store);
    EXPECT_EQ(tool.run({"activations", "show", "7", "--console"}), ExitStatus::done);
    const std::string out = tool.out.str();
    EXPECT_THAT(out, testing::StartsWith("Found 2 processes\n    PID                             Name vm_stat"));
    EXPECT_THAT(out, HasSubstr("      1                         process1           101        102             103"
                               "        104        105        106             107        108     111616"
                               "          112640        111 NEW \n"));
    // Free as it was counted, without the speculative pages again.
    EXPECT_THAT(out, HasSubstr("\nStart VM Statistics (pages)\n      free"));
    EXPECT_THAT(out, HasSubstr("\n      1001       1002       1003       1004 "));
    EXPECT_THAT(out, ContainsRegex("\nDelta VM Statistics \\(pages\\)\n.*\n +0 +0 +0 +0 +0 +0 +0 +3011 +3012 "));
}

TEST_F(Activations, ShowSaysWhatIsNotThereAndWhatIsNoID) {
    PowerLogEvents{}.sendTo(store);
    EXPECT_EQ(tool.run({"activations", "show", "8"}), ExitStatus::failed);
    EXPECT_THAT(tool.error.str(), HasSubstr("no activation 8"));
    for (const char* id : {"", "0x", "12 ", "-- -1", "18446744073709551616", "xyz"}) {
        EXPECT_EQ(tool.run({"activations", "show", id}), ExitStatus::usage) << id;
    }
}

TEST_F(Activations, OfTwoWithOneIDTheNewestIsShown) {
    PowerLogEvents{.bundleID = "old"}.sendTo(store);
    PowerLogEvents{.bundleID = "new"}.sendTo(store);
    EXPECT_EQ(tool.run({"activations", "show", "7"}), ExitStatus::done);
    EXPECT_THAT(tool.out.str(), ContainsRegex("BundleID +new"));
    EXPECT_THAT(tool.error.str(), HasSubstr("2 activations have this ID"));
}

TEST_F(Activations, StatsGivePercentilesByBundleAndType) {
    for (const std::uint64_t ms : {300, 100, 200}) PowerLogEvents{.durationMs = ms}.sendTo(store);
    PowerLogEvents{.durationMs = 5, .type = 2}.sendTo(store);
    EXPECT_EQ(tool.run({"activations", "stats"}), ExitStatus::done);
    EXPECT_EQ(tool.out.str(),
              "  BundleID         Type    Count  Min_ms  P50_ms  P90_ms  P99_ms  Max_ms\n"
              "  com.example.app  launch  3      100     200     300     300     300\n"
              "  com.example.app  resume  1      5       5       5       5       5\n");
    EXPECT_EQ(json({"activations", "stats", "--json"})[0]["P50_ms"], 200);
}

TEST_F(Activations, ReadsWhileTheDaemonWrites) {
    for (std::uint64_t id = 1; id <= 50; ++id) {
        PowerLogEvents{.activationID = id}.sendTo(store);
        EXPECT_EQ(json({"activations", "list", "--limit", "1", "--json"})[0]["ID"], std::to_string(id));
    }
    EXPECT_TRUE(log.lines().empty());
}

}  // namespace
}  // namespace quorvix::ctl
