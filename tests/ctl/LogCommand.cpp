#include <gmock/gmock.h>
#include <sys/stat.h>

#include <fstream>
#include <nlohmann/json.hpp>

#include "ctl/LogStory.h"
#include "tests/ctl/Tool.h"
#include "tests/support/TemporaryFolder.h"

namespace quorvix::ctl {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

std::vector<std::string> story(const std::string& app, const std::vector<std::string>& messages) {
    std::vector<LogLine> lines;
    for (const std::string& message : messages) {
        lines.push_back({.time = "",
                         .level = "info",
                         .category = "",
                         .message = message,
                         .event = "",
                         .reason = "",
                         .daemon = "1"});
    }
    std::vector<std::string> found;
    for (const LogLine& line : storyOf(app, lines)) found.push_back(line.message);
    return found;
}

TEST(LogStory, TakesLinesThatNameTheApp) {
    EXPECT_THAT(story("Mail", {"Mail: Hang detected 6.00s (main)", "Mailer: Hang detected 6.00s (main)",
                               "Mail is out of credits. Not saving a report!", "com.Mail.x: Hang detected",
                               "MyMail credits increased to: 1", "in spool: /a/main-Mail-2026-01-15-120000.swivex"}),
                ElementsAre("Mail: Hang detected 6.00s (main)", "Mail is out of credits. Not saving a report!",
                            "in spool: /a/main-Mail-2026-01-15-120000.swivex"));
}

TEST(LogStory, TakesTheLinesOfItsConnectionBeforeItsNameWasSaid) {
    EXPECT_THAT(
        story("Mail", {"VEX: Client started new connection: pid 412", "VEX: Client started new connection: pid 413",
                       "Initialization complete now watching hangs for Mail(412) | main", "Client disconnected: 413",
                       "Client disconnected: 412"}),
        ElementsAre("VEX: Client started new connection: pid 412",
                    "Initialization complete now watching hangs for Mail(412) | main", "Client disconnected: 412"));
}

TEST(LogStory, ANumberThatWasGivenOutAgainIsAnotherProcess) {
    EXPECT_THAT(story("Mail", {"VEX: Client started new connection: pid 412", "now watching hangs for Mail(412) | main",
                               "Client disconnected: 412", "VEX: Client started new connection: pid 412",
                               "now watching hangs for Maps(412) | main", "Client disconnected: 412"}),
                ElementsAre("VEX: Client started new connection: pid 412", "now watching hangs for Mail(412) | main",
                            "Client disconnected: 412"));
}

TEST(LogStory, ANumberIsAProcessWhereTheTextsHaveOne) {
    EXPECT_THAT(story("4", {"Client disconnected: 4", "Mail Log credits: 4 -> 3", "Daily Log credits: 5 -> 4",
                            "Mail[4] activation end", "Client disconnected: 41"}),
                ElementsAre("Client disconnected: 4", "Mail[4] activation end"));
}

TEST(LogStory, NoAppHasNoStory) { EXPECT_THAT(story("", {"a"}), IsEmpty()); }

TEST(LogLines, OfTheJournal) {
    const auto line = logLineOfJournal(
        R"({"MESSAGE":"Mail: x","PRIORITY":"5","__REALTIME_TIMESTAMP":"1768478400123456","QUORVIX_CATEGORY":"platform",)"
        R"("MESSAGE_ID":"ab","QUORVIX_REASON":"app-credits","_PID":"9"})");
    ASSERT_TRUE(line);
    EXPECT_EQ(line->time, "2026-01-15T12:00:00.123Z");
    EXPECT_EQ(line->level, "default");
    EXPECT_EQ(line->category, "platform");
    EXPECT_EQ(line->reason, "app-credits");
    EXPECT_EQ(line->daemon, "9");
}

TEST(LogLines, OfTheJournalWithBytesThatAreNoText) {
    const auto line = logLineOfJournal(R"({"MESSAGE":[77,255,10],"PRIORITY":"6"})");
    ASSERT_TRUE(line);
    EXPECT_EQ(line->message, "M\xff\n");
    EXPECT_EQ(line->level, "info");
}

TEST(LogLines, WhatIsNoEntryIsNoLine) {
    for (const char* text : {"", "[]", "{}", "{\"MESSAGE\":null}", "{\"MESSAGE\":\"\"}", "{\"MESSAGE\":\"a\""}) {
        EXPECT_FALSE(logLineOfJournal(text)) << text;
    }
}

TEST(LogLines, OfStandardError) {
    const auto line = logLineOfText("Jan 15 12:00:00 <info> [platform] Report written: a <default> b");
    ASSERT_TRUE(line);
    EXPECT_EQ(line->time, "Jan 15 12:00:00");
    EXPECT_EQ(line->level, "info");
    EXPECT_EQ(line->category, "platform");
    EXPECT_EQ(line->message, "Report written: a <default> b");
    EXPECT_FALSE(logLineOfText("Segmentation fault"));
}

class LogCommand : public testing::Test {
protected:
    LogCommand() {
        tool.services.logLevelFolder = folder.path();
        tool.services.logFile = folder.path() + "/none";
        tool.services.journalProgram = folder.path() + "/none";
    }
    // A program in the journal's place, which prints this and notes how it was called.
    void journalSays(const std::string& text, int status = 0) {
        std::ofstream(folder.path() + "/lines") << text;
        tool.services.journalProgram = folder.path() + "/journal";
        std::ofstream(tool.services.journalProgram)
            << "#!/bin/sh\nprintf '%s\\n' \"$@\" > " << folder.path() << "/called\ncat " << folder.path()
            << "/lines\nexit " << status << "\n";
        chmod(tool.services.journalProgram.c_str(), 0755);
    }
    std::string called() {
        std::ifstream file(folder.path() + "/called");
        return {std::istreambuf_iterator<char>(file), {}};
    }
    tests::TemporaryFolder folder;
    Tool tool;
};

TEST_F(LogCommand, AsksTheJournalForTheDaemonsOwnLinesOnly) {
    journalSays(R"({"MESSAGE":"Mail: Hang detected","PRIORITY":"6","__REALTIME_TIMESTAMP":"1768478400000000"})"
                "\n"
                R"({"MESSAGE":"Maps: Hang detected","PRIORITY":"6"})"
                "\n");
    EXPECT_EQ(tool.run({"log", "Mail", "--since", "1 hour ago"}), ExitStatus::done);
    EXPECT_EQ(tool.out.str(), "2026-01-15T12:00:00.000Z  info    Mail: Hang detected\n");
    for (const char* match : {"\nSYSLOG_IDENTIFIER=quorvixd\n", "\n_UID=0\n", "\n--output=json\n"}) {
        EXPECT_THAT(called(), HasSubstr(match));
    }
    EXPECT_THAT(called(), HasSubstr("--since=1 hour ago\n"));
}

TEST_F(LogCommand, NoNameMovesTheCursor) {
    journalSays(R"({"MESSAGE":"Mail: \u001b[2J\nx","PRIORITY":"5"})"
                "\n");
    EXPECT_EQ(tool.run({"log", "Mail"}), ExitStatus::done);
    EXPECT_EQ(tool.out.str(), "default Mail: ?[2J?x\n");
}

TEST_F(LogCommand, TheLastLinesOnly) {
    journalSays("{\"MESSAGE\":\"Mail: 1\"}\n{\"MESSAGE\":\"Mail: 2\"}\n");
    EXPECT_EQ(tool.run({"log", "Mail", "--lines", "1", "--json"}), ExitStatus::done);
    const auto list = nlohmann::json::parse(tool.out.str());
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0]["message"], "Mail: 2");
}

TEST_F(LogCommand, WithoutAJournalTheLogFileIsRead) {
    tool.services.logFile = folder.path() + "/log";
    std::ofstream(tool.services.logFile) << "<info> Mail: Hang detected\n";
    EXPECT_EQ(tool.run({"log", "Mail"}), ExitStatus::done);
    EXPECT_EQ(tool.out.str(), "info    Mail: Hang detected\n");
}

TEST_F(LogCommand, WhereTheJournalTellsNothingTheLogFileIsRead) {
    journalSays("");
    tool.services.logFile = folder.path() + "/log";
    std::ofstream(tool.services.logFile) << "<info> Mail: Hang detected\n";
    EXPECT_EQ(tool.run({"log", "Mail"}), ExitStatus::done);
    EXPECT_EQ(tool.out.str(), "info    Mail: Hang detected\n");
}

TEST_F(LogCommand, AnEmptyJournalIsNoFailureForRootAlone) {
    journalSays("");
    EXPECT_EQ(tool.run({"log", "Mail"}), ExitStatus::done);
    tool.services.isRoot = false;
    EXPECT_EQ(tool.run({"log", "Mail"}), ExitStatus::failed);
    EXPECT_THAT(tool.error.str(), HasSubstr("run this as root"));
}

TEST_F(LogCommand, AJournalThatFailsIsAFailure) {
    journalSays("", 1);
    EXPECT_EQ(tool.run({"log", "Mail"}), ExitStatus::failed);
    EXPECT_THAT(tool.error.str(), HasSubstr("--file"));
}

TEST_F(LogCommand, NeedsAnApp) { EXPECT_EQ(tool.run({"log"}), ExitStatus::usage); }

TEST_F(LogCommand, LevelIsInfoUntilItIsSet) {
    EXPECT_EQ(tool.run({"log", "level"}), ExitStatus::done);
    EXPECT_EQ(tool.out.str(), "  category  keeps\n  *         info\n");
    EXPECT_EQ(tool.run({"log", "level", "debug"}), ExitStatus::done);
    EXPECT_EQ(tool.run({"log", "level", "default", "--category", "given"}), ExitStatus::done);
    EXPECT_EQ(tool.run({"log", "level", "--json"}), ExitStatus::done);
    EXPECT_EQ(nlohmann::json::parse(tool.out.str()), (nlohmann::json{{"*", "debug"}, {"given", "default"}}));
    EXPECT_EQ(tool.run({"log", "level", "--reset"}), ExitStatus::done);
    EXPECT_EQ(tool.run({"log", "level"}), ExitStatus::done);
    EXPECT_EQ(tool.out.str(), "  category  keeps\n  *         info\n");
}

TEST_F(LogCommand, AMistypedCategoryIsRefusedAndNotStored) {
    EXPECT_EQ(tool.run({"log", "level", "debug", "--category", "platfrom"}), ExitStatus::usage);
    EXPECT_EQ(tool.error.str(), "quorvixctl: \"platfrom\" is not a category of quorvixd: platform or given\n");
    EXPECT_EQ(tool.run({"log", "level", "debug", "--category", "platform"}), ExitStatus::done);
    EXPECT_EQ(tool.run({"log", "level", "--json"}), ExitStatus::done);
    EXPECT_EQ(nlohmann::json::parse(tool.out.str()), (nlohmann::json{{"*", "info"}, {"platform", "debug"}}));
}

TEST_F(LogCommand, ACategoryThatIsNotKnownCanBeTakenOut) {
    tests::writeWholeFile(tool.services.logLevelFolder + "/logging.plist",
                          "<plist version=\"1.0\"><dict><key>com.norvane.quorvix</key><dict><key>platfrom</key>"
                          "<string>debug</string></dict></dict></plist>");
    EXPECT_EQ(tool.run({"log", "level", "--reset", "--category", "platfrom"}), ExitStatus::done);
    EXPECT_EQ(tool.run({"log", "level"}), ExitStatus::done);
    EXPECT_EQ(tool.out.str(), "  category  keeps\n  *         info\n");
}

TEST_F(LogCommand, AnUnknownLevelIsRefused) { EXPECT_EQ(tool.run({"log", "level", "loud"}), ExitStatus::usage); }

}  // namespace
}  // namespace quorvix::ctl
