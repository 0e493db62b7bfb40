#include "ctl/ReportPageCommand.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "platform/linux/PowerLogStore.h"
#include "tests/ctl/Tool.h"
#include "tests/support/PowerLogEvents.h"
#include "tests/support/RecordingLog.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/TraceEncoder.h"

namespace quorvix::ctl {
namespace {

using testing::HasSubstr;
using tests::switched;
using tests::TraceEncoder;

constexpr std::uint64_t kSecond = 1'000'000'000;

class ReportPage : public testing::Test {
protected:
    ReportPage() {
        tool_.services.spoolFolder = spool_.path();
        tool_.services.reportFolder = memory_.path();
        tool_.services.powerLogPath = spool_.path("none.db");
    }

    // Of a busy thread that hung for two seconds, from `beganSeconds` of wall clock.
    void writeReport(const std::string& name, std::uint64_t beganSeconds, const std::string& app) {
        TraceEncoder trace;
        trace.hang(10 * kSecond, 12 * kSecond, 50, 50).covered(10 * kSecond, 13 * kSecond);
        trace.text("reason", R"({"Reason":"slow","ServiceName":"main","ProcessPath":"/opt/)" + app + "\"}");
        trace.attributes().clocks(beganSeconds * kSecond, 10 * kSecond);
        trace.events(0, {switched(9 * kSecond, 0, 0, 50)});
        tests::writeWholeFile(spool_.path(name), trace.file());
    }
    void writeSnapshot(const std::string& timestamp, int leakPages) {
        const std::string head =
            "{\"bug_type\":\"152\",\"os_version\":\"x\"}\n{\n\"Model\" : \"m\",\n\"Timestamp\" : \"" + timestamp +
            "\",\n\"OSVersion\" : \"x\"\n}\n{\n\"page_size\" : 4096,\n\"free_count\" : 7,\n\"Processes\" :\n[\n";
        const std::string process =
            "{\"ProcessName\":\"leak\", \"Priority\":1, \"Footprint\":" + std::to_string(leakPages) +
            ", \"Dirty\":\"Y\"}";
        tests::writeWholeFile(memory_.path("memory-snapshot-" + timestamp + ".ips"),
                              head + process + "],\n\"Zones\" :\n[\n],\n\"Wired\" :\n[\n]\n}\n");
    }
    ExitStatus run(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {"report", "html"});
        return tool_.run(std::move(arguments));
    }
    // What the page shows.
    nlohmann::json dataOf(const std::string& page) const {
        const std::string text = tests::readWholeFile(page);
        const std::string before = "id=\"data\">";
        const std::size_t begin = text.find(before) + before.size();
        return nlohmann::json::parse(text.substr(begin, text.find("</script>", begin) - begin));
    }
    std::size_t filesInOut() const {
        return static_cast<std::size_t>(
            std::distance(std::filesystem::directory_iterator(out_.path()), std::filesystem::directory_iterator()));
    }

    tests::TemporaryFolder spool_;
    tests::TemporaryFolder memory_;
    tests::TemporaryFolder out_;
    std::string page_ = out_.path("page.html");
    Tool tool_;
};

TEST_F(ReportPage, ShowsOneReportByItsNameInTheSpool) {
    writeReport("a.swivex", 1000, "app");
    ASSERT_EQ(run({"a.swivex", "--output", page_}), ExitStatus::done) << tool_.error.str();
    EXPECT_THAT(tool_.out.str(), HasSubstr("page.html: 1 hang report, "));
    const auto data = dataOf(page_);
    ASSERT_EQ(data["hangs"].size(), 1U);
    EXPECT_FALSE(data["folder"]);
    EXPECT_EQ(data["hangs"][0]["app"], "app");
    EXPECT_EQ(data["hangs"][0]["cause"], "busy");
    EXPECT_EQ(data["hangs"][0]["duration_ns"], 2 * kSecond);
    EXPECT_EQ(data["hangs"][0]["detail"]["reason"], "slow");
    struct stat status {};
    ASSERT_EQ(stat(page_.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0600U);
}

TEST_F(ReportPage, ShowsAFolderTheNewestFirstWithWhatCanNotBeRead) {
    writeReport("old.swivex", 1000, "old");
    writeReport("new.swivex", 2000, "new");
    tests::writeWholeFile(spool_.path("bad.swivex"), "hello");
    ASSERT_EQ(run({spool_.path(), "--output", page_, "--json"}), ExitStatus::done) << tool_.error.str();
    const auto told = nlohmann::json::parse(tool_.out.str());
    EXPECT_EQ(told["page"], page_);
    EXPECT_EQ(told["bytes"], std::filesystem::file_size(page_));
    EXPECT_EQ(told["reports"], 2);
    EXPECT_EQ(told["not_read"], 1);
    const auto data = dataOf(page_);
    ASSERT_EQ(data["hangs"].size(), 3U);
    EXPECT_EQ(data["hangs"][0]["problem"], "no hang report: bytes that are no packet");  // written just now
    EXPECT_EQ(data["hangs"][1]["app"], "new");
    EXPECT_EQ(data["hangs"][2]["app"], "old");
}

TEST_F(ReportPage, BeyondTheLimitReportsAreOnlyListed) {
    for (const char* const name : {"a.swivex", "b.swivex", "c.swivex"}) writeReport(name, 1000, "app");
    ASSERT_EQ(run({spool_.path(), "--output", page_, "--limit", "2"}), ExitStatus::done);
    std::size_t inFull = 0;
    const auto data = dataOf(page_);
    for (const auto& hang : data["hangs"]) {
        EXPECT_EQ(hang["cause"], "busy");
        if (hang.contains("detail")) ++inFull;
    }
    EXPECT_EQ(inFull, 2U);
}

TEST_F(ReportPage, SaysWhyThereAreNoLaunchesAndNoMemory) {
    writeReport("a.swivex", 1000, "app");
    ASSERT_EQ(run({"a.swivex", "--output", page_}), ExitStatus::done);
    const auto data = dataOf(page_);
    EXPECT_THAT(data["launches"]["problem"].get<std::string>(), HasSubstr("no activation was stored yet"));
    EXPECT_THAT(data["memory"]["problem"].get<std::string>(), HasSubstr("there is no memory snapshot in"));
    ASSERT_EQ(run({"a.swivex", "--output", page_, "--memory-reports", memory_.path("none")}), ExitStatus::done);
    EXPECT_THAT(dataOf(page_)["memory"]["problem"].get<std::string>(), HasSubstr("No such file"));
}

TEST_F(ReportPage, ShowsLaunchesWithTheirPercentiles) {
    writeReport("a.swivex", 1000, "app");
    ASSERT_EQ(mkdir(out_.path("log").c_str(), 0700), 0);
    tests::RecordingLog log;
    linuxos::PowerLogStore store(log, {.folder = out_.path("log")});
    for (std::uint64_t id = 1; id <= 10; ++id) {
        tests::PowerLogEvents{.activationID = id, .bundleID = "<b>\x1b", .durationMs = id * 100}.sendTo(store);
    }
    ASSERT_EQ(run({"a.swivex", "--output", page_, "--power-log", out_.path("log/wattrel.db")}), ExitStatus::done);
    const auto launches = dataOf(page_)["launches"];
    ASSERT_EQ(launches["rows"].size(), 1U) << launches;
    EXPECT_EQ(launches["rows"][0]["app"], "<b>?");
    EXPECT_EQ(launches["rows"][0]["type"], "launch");
    EXPECT_EQ(launches["rows"][0]["count"], 10);
    EXPECT_EQ(launches["rows"][0]["p50_ms"], 500);
    EXPECT_EQ(launches["rows"][0]["p90_ms"], 900);
    EXPECT_EQ(launches["rows"][0]["max_ms"], 1000);
}

TEST_F(ReportPage, ShowsWhatMemoryGrew) {
    writeReport("a.swivex", 1000, "app");
    writeSnapshot("2026-01-15-120000", 100);
    writeSnapshot("2026-01-15-130000", 300);
    tests::writeWholeFile(memory_.path("memory-snapshot-2026-01-15-140000.ips"), "cut");
    ASSERT_EQ(run({"a.swivex", "--output", page_}), ExitStatus::done);
    const auto memory = dataOf(page_)["memory"];
    ASSERT_FALSE(memory.contains("problem")) << memory;
    EXPECT_EQ(memory["times"], nlohmann::json({"2026-01-15-120000", "2026-01-15-130000"}));
    EXPECT_EQ(memory["processes"], nlohmann::json({409600, 1228800}));
    EXPECT_EQ(memory["free"], nlohmann::json({28672, 28672}));
    ASSERT_EQ(memory["grown"]["processes"].size(), 1U);
    EXPECT_EQ(memory["grown"]["processes"][0]["name"], "leak");
    EXPECT_EQ(memory["grown"]["processes"][0]["series"], nlohmann::json({409600, 1228800}));
    EXPECT_EQ(memory["unread"], nlohmann::json({"memory-snapshot-2026-01-15-140000.ips"}));
}

TEST_F(ReportPage, WhatIsNoReportFailsAndLeavesNothing) {
    tests::writeWholeFile(spool_.path("text.swivex"), "hello");
    for (const auto& [from, why] : {std::pair(std::string("text.swivex"), "no hang report: bytes that are no packet"),
                                    {std::string("none.swivex"), "No such file or directory"},
                                    {std::string("/dev/zero"), "not a regular file"},
                                    {memory_.path(), "there is no hang report in"}}) {
        EXPECT_EQ(run({from, "--output", page_}), ExitStatus::failed) << from;
        EXPECT_THAT(tool_.error.str(), testing::StartsWith("quorvixctl: "));
        EXPECT_THAT(tool_.error.str(), HasSubstr(why));
        EXPECT_EQ(tool_.out.str(), "");
        EXPECT_EQ(filesInOut(), 0U);
    }
}

TEST_F(ReportPage, APageThatCanNotBeWrittenLeavesNothing) {
    writeReport("a.swivex", 1000, "app");
    ASSERT_EQ(mkfifo(out_.path("pipe").c_str(), 0600), 0);
    for (const auto& [output, why] : {std::pair(out_.path("none/page.html"), "No such file or directory"),
                                      {out_.path(), "Is a directory"},
                                      {out_.path("pipe"), "Invalid argument"}}) {
        EXPECT_EQ(run({"a.swivex", "--output", output}), ExitStatus::failed) << output;
        EXPECT_THAT(tool_.error.str(), HasSubstr("could not be written: " + std::string(why)));
        EXPECT_EQ(filesInOut(), 1U) << "the pipe alone";
    }
}

TEST_F(ReportPage, APageThatIsThereIsReplacedAndALinkToItNotFollowed) {
    writeReport("a.swivex", 1000, "app");
    tests::writeWholeFile(out_.path("other"), "kept");
    ASSERT_EQ(symlink(out_.path("other").c_str(), page_.c_str()), 0);
    ASSERT_EQ(run({"a.swivex", "--output", page_}), ExitStatus::done);
    EXPECT_EQ(tests::readWholeFile(out_.path("other")), "kept");
    EXPECT_FALSE(std::filesystem::is_symlink(page_));
    EXPECT_EQ(dataOf(page_)["hangs"].size(), 1U);
    EXPECT_EQ(filesInOut(), 2U);
}

TEST_F(ReportPage, GoesToStandardOutputWhenToldSoButNotTogetherWithJson) {
    writeReport("a.swivex", 1000, "app");
    ASSERT_EQ(run({"a.swivex", "--output", "-"}), ExitStatus::done);
    EXPECT_THAT(tool_.out.str(), testing::StartsWith("<!DOCTYPE html>"));
    EXPECT_EQ(run({"a.swivex", "--output", "-", "--json"}), ExitStatus::usage);
    EXPECT_EQ(run({}), ExitStatus::usage);
}

}  // namespace
}  // namespace quorvix::ctl
