#include "ctl/ReportCommand.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <map>
#include <nlohmann/json.hpp>

#include "tests/ctl/Tool.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/TraceEncoder.h"

namespace quorvix::ctl {
namespace {

using testing::HasSubstr;
using testing::Not;
using tests::switched;
using tests::TraceEncoder;

constexpr std::uint64_t kSecond = 1'000'000'000;

class ReportCommandTest : public testing::Test {
protected:
    ReportCommandTest() { tool_.services.spoolFolder = folder_.path(); }

    // A report of a busy thread that hung for two seconds, from `beganSeconds` of wall clock.
    static TraceEncoder report(std::uint64_t beganSeconds, const std::string& app) {
        TraceEncoder trace;
        trace.hang(10 * kSecond, 12 * kSecond, 50, 50).covered(10 * kSecond, 13 * kSecond);
        trace.text("reason", R"({"Reason":"slow","ServiceName":"HangTracer","ProcessPath":"/opt/)" + app + "\"}");
        trace.attributes().clocks(beganSeconds * kSecond, 10 * kSecond);
        trace.events(0, {switched(9 * kSecond, 0, 0, 50)});
        return trace;
    }
    void write(const std::string& name, const std::string& content) {
        tests::writeWholeFile(folder_.path(name), content);
    }
    nlohmann::json list() {
        EXPECT_EQ(tool_.run({"report", "list", "--json"}), ExitStatus::done) << tool_.error.str();
        return nlohmann::json::parse(tool_.out.str());
    }

    tests::TemporaryFolder folder_;
    Tool tool_;
};

TEST_F(ReportCommandTest, TheListSaysWhichClockItsTimesAreOf) {
    write("a.swivex", report(3000, "newest").file());
    EXPECT_EQ(tool_.run({"report", "list"}), ExitStatus::done);
    EXPECT_THAT(tool_.out.str(), testing::StartsWith("  WHEN (LOCAL TIME)    APP "));
}

TEST_F(ReportCommandTest, ListsTheNewestFirstByTheTimeOfTheHang) {
    write("b.swivex", report(1000, "old").file());
    write("a.swivex", report(3000, "newest").file());
    write("c.swivex", report(2000, "middle").file());
    write("other.txt", "not one");
    const auto listed = list();
    ASSERT_EQ(listed.size(), 3U);
    EXPECT_EQ(listed[0]["app"], "newest");
    EXPECT_EQ(listed[1]["app"], "middle");
    EXPECT_EQ(listed[2]["app"], "old");
    EXPECT_EQ(listed[0]["cause"], "busy");
    EXPECT_EQ(listed[0]["duration_ns"], 2 * kSecond);
    EXPECT_EQ(listed[0]["when_realtime_ns"], 3000 * kSecond);
    EXPECT_TRUE(listed[0]["complete"]);
    EXPECT_EQ(tool_.run({"report", "list"}), ExitStatus::done);
    EXPECT_THAT(tool_.out.str(), HasSubstr("newest"));
    EXPECT_THAT(tool_.out.str(), HasSubstr("2.000 s"));
}

TEST_F(ReportCommandTest, ListsWhatCanNotBeReadWithTheReason) {
    write("empty.swivex", "");
    write("text.swivex", "hello");
    ASSERT_EQ(mkfifo(folder_.path("pipe.swivex").c_str(), 0600), 0);
    const std::string whole = report(1000, "cut").file();
    write("cut.swivex", whole.substr(0, whole.size() - 1));
    const auto listed = list();
    ASSERT_EQ(listed.size(), 4U);
    std::map<std::string, nlohmann::json> byName;
    for (const auto& entry : listed) byName[entry["file"]] = entry;
    EXPECT_EQ(byName["empty.swivex"]["problem"], "no hang report: the file is empty");
    EXPECT_EQ(byName["text.swivex"]["problem"], "no hang report: bytes that are no packet");
    EXPECT_EQ(byName["pipe.swivex"]["problem"], "not a regular file");
    EXPECT_EQ(byName["cut.swivex"]["complete"], false);
    EXPECT_EQ(tool_.run({"report", "list"}), ExitStatus::done);
    EXPECT_THAT(tool_.out.str(), HasSubstr("busy, incomplete"));
}

TEST_F(ReportCommandTest, AnEmptyFolderHasNoReportsAndAMissingOneIsAFailure) {
    EXPECT_EQ(tool_.run({"report", "list"}), ExitStatus::done);
    EXPECT_EQ(tool_.out.str(), "no hang reports\n");
    EXPECT_EQ(tool_.run({"report", "list", "--directory", folder_.path("none")}), ExitStatus::failed);
    EXPECT_THAT(tool_.error.str(), HasSubstr("could not be read"));
}

TEST_F(ReportCommandTest, ShowsAReportByItsPathOrItsNameInTheSpool) {
    write("a.swivex", report(1000, "app").file());
    EXPECT_EQ(tool_.run({"report", "show", "a.swivex"}), ExitStatus::done) << tool_.error.str();
    EXPECT_THAT(tool_.out.str(), testing::StartsWith("File complete\n"));
    EXPECT_THAT(tool_.out.str(), HasSubstr("Verdict: busy\n"));
    const std::string byName = tool_.out.str();
    EXPECT_EQ(tool_.run({"report", "show", folder_.path("a.swivex"), "--no-symbols"}), ExitStatus::done);
    EXPECT_EQ(tool_.out.str(), byName);
}

TEST_F(ReportCommandTest, ExportsAsTextAndAsJson) {
    write("a.swivex", report(1000, "app").file());
    EXPECT_EQ(tool_.run({"report", "show", "a.swivex", "--json"}), ExitStatus::done);
    const std::string shown = tool_.out.str();
    EXPECT_EQ(nlohmann::json::parse(shown)["verdict"]["cause"], "busy");
    EXPECT_EQ(tool_.run({"report", "export", "a.swivex", "--format", "json"}), ExitStatus::done);
    EXPECT_EQ(tool_.out.str(), shown);
    EXPECT_EQ(tool_.run({"report", "export", "a.swivex"}), ExitStatus::done);
    EXPECT_THAT(tool_.out.str(), HasSubstr("Verdict: busy\n"));
    EXPECT_EQ(tool_.run({"report", "export", "a.swivex", "--format", "xml"}), ExitStatus::usage);
    EXPECT_EQ(tool_.run({"report", "show"}), ExitStatus::usage);
    EXPECT_EQ(tool_.run({"report"}), ExitStatus::usage);
}

TEST_F(ReportCommandTest, AnIncompleteReportIsShownAsFarAsItGoes) {
    const std::string whole = report(1000, "app").file();
    write("cut.swivex", whole.substr(0, whole.size() - 1));
    EXPECT_EQ(tool_.run({"report", "show", "cut.swivex"}), ExitStatus::done);
    EXPECT_THAT(tool_.out.str(), testing::StartsWith("FILE INCOMPLETE: ends inside a packet\n"));
    EXPECT_THAT(tool_.out.str(), HasSubstr("Verdict: busy\n"));
}

TEST_F(ReportCommandTest, WhatIsNoHangReportFails) {
    write("text.swivex", "hello");
    EXPECT_EQ(tool_.run({"report", "show", "text.swivex"}), ExitStatus::failed);
    EXPECT_THAT(tool_.error.str(), HasSubstr("is no hang report"));
    EXPECT_EQ(tool_.run({"report", "show", "none.swivex"}), ExitStatus::failed);
    EXPECT_THAT(tool_.error.str(), HasSubstr("No such file"));
    EXPECT_EQ(tool_.run({"report", "show", "/dev/zero"}), ExitStatus::failed);
    EXPECT_THAT(tool_.error.str(), HasSubstr("not a regular file"));
}

TEST_F(ReportCommandTest, NamesOfFilesAndAppsCanNotMoveTheTerminalsCursor) {
    write("\x1b[2J.swivex", report(1000, "\\u001b[31m").file());
    EXPECT_EQ(tool_.run({"report", "list"}), ExitStatus::done);
    EXPECT_THAT(tool_.out.str(), Not(HasSubstr("\x1b")));
    EXPECT_THAT(tool_.out.str(), HasSubstr("\\x1b[2J.swivex"));
    EXPECT_EQ(tool_.run({"report", "show", "\x1b[3J.swivex"}), ExitStatus::failed);
    EXPECT_THAT(tool_.error.str(), Not(HasSubstr("\x1b")));
}

}  // namespace
}  // namespace quorvix::ctl
