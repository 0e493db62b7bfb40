#include "ctl/MemoryCommand.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "ctl/MemoryReport.h"
#include "memsnapshot/MemoryReportText.h"
#include "platform/sim/SimPlatform.h"
#include "tests/ctl/Tool.h"
#include "tests/support/TemporaryFolder.h"

namespace quorvix::ctl {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using Kind = WiredSite::Kind;

// Reports as the daemon's own code writes them on a simulated device, in a folder that the tool reads.
class MemoryCommandTest : public testing::Test {
protected:
    MemoryCommandTest() {
        setPlatform(&device_.services);
        tool_.reportFolder = folder_.path();
        tool_.services.reportFolder = folder_.path();
        device_.processMemory.processes = {
            {.pid = 1, .priority = -1000, .path = "/sbin/init", .footprintBytes = 4096 * 10},
            {.pid = 2, .path = "/usr/bin/leak", .footprintBytes = 4096 * 100, .assertions = 9},
            {.pid = 3, .path = "/usr/bin/worker", .footprintBytes = 4096 * 5}};
        device_.kernelMemory.memory.zones = {{"dentry", 4096 * 7}};
        device_.kernelMemory.memory.sites = {{Kind::kernelTag, 8, 1024}};
    }
    ~MemoryCommandTest() override { setPlatform(nullptr); }

    // Returns the report's name.
    std::string write(const std::string& timestamp) {
        const std::string name = "memory-snapshot-" + timestamp + ".ips";
        tests::writeWholeFile(folder_.path(name), memoryReportText(timestamp));
        return name;
    }
    nlohmann::json json(std::vector<std::string> arguments) {
        EXPECT_EQ(tool_.run(std::move(arguments)), ExitStatus::done) << tool_.error.str();
        return nlohmann::json::parse(tool_.out.str());
    }
    static std::vector<std::string> namesOf(const nlohmann::json& list) {
        std::vector<std::string> names;
        for (const auto& entry : list) names.push_back(entry.at("name"));
        return names;
    }

    sim::SimPlatform device_;
    tests::TemporaryFolder folder_;
    Tool tool_;
};

TEST_F(MemoryCommandTest, ReadsWhatTheDaemonWrites) {
    device_.host.statistics.free_count = 77;
    const auto report = parseMemoryReport(memoryReportText("2026-01-15-120000"));
    ASSERT_TRUE(report);
    EXPECT_EQ(report->osVersion, "CVOS 9.3 (13E230)");
    EXPECT_EQ(report->timestamp, "2026-01-15-120000");
    ASSERT_EQ(report->counters.size(), 25u);
    EXPECT_EQ(report->counters[1].value, 77u);
    ASSERT_EQ(report->processes.size(), 3u);
    EXPECT_EQ(report->processes[0].priority, -1000);
    EXPECT_THAT(report->processes[1].assertions, ElementsAre("Audio", "Bg_Finish_Task"));
    EXPECT_EQ(report->zones[0].value, 7u);
    EXPECT_EQ(report->wired[0].name, "VM_KERN_MEMORY_STACK");
}

TEST_F(MemoryCommandTest, NamesThatBreakTheTextAreReadWhole) {
    const std::vector<std::string> names = {"say \"hi\"",   "two\nlines",          "\", \"Priority\":1",
                                            "},\n{ \"Name", "\x01\x02 control \\", "ends in \""};
    device_.processMemory.processes.clear();
    device_.kernelMemory.memory = {};
    std::int32_t pid = 1;
    for (const std::string& name : names) {
        device_.processMemory.processes.push_back({.pid = pid++, .path = "/bin/" + name, .footprintBytes = 4096});
        device_.kernelMemory.memory.zones.push_back({name + "\xff", 4096});
    }
    const auto report = parseMemoryReport(memoryReportText("t"));
    ASSERT_TRUE(report);
    ASSERT_EQ(report->processes.size(), names.size());
    for (std::size_t i = 0; i < names.size(); ++i) {
        EXPECT_EQ(report->processes[i].name, names[i]);
        EXPECT_EQ(report->zones[i].name, names[i] + "\xff");
    }
}

TEST_F(MemoryCommandTest, AReportWithoutAnythingIsAReportToo) {
    device_.processMemory.processes.clear();
    device_.kernelMemory.memory = {};
    device_.host.faults.failAlways("vmStatistics64", ErrorCode{EIO});
    const auto report = parseMemoryReport(memoryReportText("t"));
    ASSERT_TRUE(report);
    EXPECT_EQ(report->error, "vm_statistics64 failed");
    EXPECT_TRUE(report->processes.empty() && report->zones.empty() && report->wired.empty());
}

TEST_F(MemoryCommandTest, NoPartOfAReportIsOne) {
    const std::string text = memoryReportText("t");
    for (std::size_t length = 0; length < text.size(); ++length) {
        EXPECT_FALSE(parseMemoryReport(std::string_view(text).substr(0, length))) << length;
    }
    EXPECT_FALSE(parseMemoryReport(text + "x"));
    EXPECT_TRUE(parseMemoryReport(text));
}

TEST_F(MemoryCommandTest, DiffNamesWhatGrewFirst) {
    const std::string before = write("2026-01-15-120000");
    device_.processMemory.processes[1].footprintBytes = 4096 * 900;
    device_.processMemory.processes[2].footprintBytes = 4096 * 6;
    device_.processMemory.processes.push_back({.pid = 4, .path = "/bin/new", .footprintBytes = 4096 * 50});
    const std::string after = write("2026-01-15-120010");
    const auto changes = json({"memory", "diff", before, after, "--json"});
    EXPECT_THAT(namesOf(changes.at("processes")), ElementsAre("leak", "new", "worker"));
    EXPECT_EQ(changes.at("processes")[0].at("growth_bytes"), 800 * 4096);
    EXPECT_TRUE(changes.at("zones").empty());
    EXPECT_EQ(tool_.run({"memory", "diff", before, after}), ExitStatus::done);
    EXPECT_THAT(tool_.out.str(), HasSubstr("       +3200 KiB  leak  (400 KiB -> 3600 KiB)\n"));
    EXPECT_THAT(tool_.out.str(), HasSubstr("Zones\n  no change\n"));
}

TEST_F(MemoryCommandTest, DiffOfProcessesThatEndedIsLastAndNegative) {
    device_.processMemory.processes.push_back({.pid = 4, .path = "/usr/bin/worker", .footprintBytes = 4096});
    const std::string before = write("1");
    device_.processMemory.processes.pop_back();
    device_.kernelMemory.memory.zones[0].sizeBytes += 4096;
    const std::string after = write("2");
    const auto changes = json({"memory", "diff", before, after, "--json"});
    EXPECT_EQ(changes.at("processes")[0].at("growth_bytes"), -4096);
    EXPECT_EQ(changes.at("processes")[0].at("before_count"), 2);
    EXPECT_EQ(changes.at("processes")[0].at("after_count"), 1);
    EXPECT_EQ(changes.at("zones")[0].at("growth_bytes"), 4096);
}

TEST_F(MemoryCommandTest, ListsReportsInTheOrderOfTime) {
    write("2026-01-15-120010");
    write("2026-01-15-120000");
    tests::writeWholeFile(folder_.path(".memory-snapshot-2026-01-15-120020.ips"), "incomplete");
    tests::writeWholeFile(folder_.path("other.ips"), "");
    EXPECT_EQ(json({"memory", "list", "--json"}),
              nlohmann::json({"memory-snapshot-2026-01-15-120000.ips", "memory-snapshot-2026-01-15-120010.ips"}));
}

TEST_F(MemoryCommandTest, TopShowsTheGreatestOfTheNewest) {
    write("2026-01-15-120000");
    device_.processMemory.processes[0].footprintBytes = 4096 * 5000;
    write("2026-01-15-120010");
    const auto top = json({"memory", "top", "--rows", "2", "--json"});
    EXPECT_THAT(namesOf(top.at("processes")), ElementsAre("init", "leak"));
    EXPECT_EQ(tool_.run({"memory", "top", "--rows", "1"}), ExitStatus::done);
    EXPECT_THAT(tool_.out.str(), HasSubstr("20000 KiB  init\n"));
    EXPECT_THAT(tool_.out.str(), Not(HasSubstr("leak")));
}

TEST_F(MemoryCommandTest, ShowIsStrictJsonWhateverTheNamesHold) {
    device_.processMemory.processes[0].path = "/bin/a\"b\nc";
    device_.kernelMemory.memory.zones[0].name = "z\xff";
    const auto shown = json({"memory", "show", write("t"), "--json"});
    EXPECT_EQ(shown.at("Processes")[0].at("ProcessName"), "a\"b\nc");
    EXPECT_EQ(shown.at("Zones")[0].at("Name"), "z\xEF\xBF\xBD");
    EXPECT_EQ(shown.at("Counters").at("page_size"), 4096);
}

TEST_F(MemoryCommandTest, ShowPrintsNoControlCharacters) {
    device_.processMemory.processes[0].path = "/bin/\x1b[2Jclear";
    EXPECT_EQ(tool_.run({"memory", "show", folder_.path(write("t"))}), ExitStatus::done);
    EXPECT_EQ(tool_.out.str().find('\x1b'), std::string::npos);
    EXPECT_THAT(tool_.out.str(), HasSubstr("400 KiB  leak  priority 0, Audio, Bg_Finish_Task\n"));
}

TEST_F(MemoryCommandTest, WhatIsMissingOrDamagedFails) {
    EXPECT_EQ(tool_.run({"memory", "show", "nothing.ips"}), ExitStatus::failed);
    EXPECT_THAT(tool_.error.str(), HasSubstr("could not be read"));
    EXPECT_EQ(tool_.run({"memory", "top"}), ExitStatus::failed);
    EXPECT_THAT(tool_.error.str(), HasSubstr("there is no memory snapshot yet"));
    tests::writeWholeFile(folder_.path("memory-snapshot-1.ips"), "{\"bug_type\":\"152\"");
    EXPECT_EQ(tool_.run({"memory", "top"}), ExitStatus::failed);
    EXPECT_THAT(tool_.error.str(), HasSubstr("is no complete memory snapshot report"));
    tool_.services.reportFolder = folder_.path("missing");
    EXPECT_EQ(tool_.run({"memory", "list"}), ExitStatus::failed);
    EXPECT_EQ(tool_.run({"memory"}), ExitStatus::usage);
    EXPECT_EQ(tool_.run({"memory", "diff", "one"}), ExitStatus::usage);
}

TEST_F(MemoryCommandTest, ASnapshotIsToldByItsPath) {
    EXPECT_EQ(tool_.run({"memory", "snapshot"}), ExitStatus::failed);
    tool_.snapshotPath = "/Library/Logs/Faultbox//memory-snapshot-1.ips";
    EXPECT_EQ(tool_.run({"memory", "snapshot"}), ExitStatus::done);
    EXPECT_EQ(tool_.out.str(), "/Library/Logs/Faultbox//memory-snapshot-1.ips\n");
}

}  // namespace
}  // namespace quorvix::ctl
