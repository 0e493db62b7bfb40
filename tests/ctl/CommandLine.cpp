#include "ctl/CommandLine.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cerrno>

#include "tests/ctl/Tool.h"

namespace quorvix::ctl {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

class CommandLine : public testing::Test {
protected:
    Tool tool;
};

TEST_F(CommandLine, EveryCommandHasHelp) {
    const std::vector<std::vector<std::string>> commands = {
        {},         {"prefs"}, {"prefs", "get"}, {"prefs", "set"}, {"prefs", "unset"}, {"prefs", "list"},
        {"notify"}, {"status"}};
    for (std::vector<std::string> command : commands) {
        command.emplace_back("--help");
        EXPECT_EQ(tool.run(command), ExitStatus::done);
        EXPECT_THAT(tool.out.str(), HasSubstr("Usage"));
    }
}

TEST_F(CommandLine, WhatItDoesNotKnowIsAUsageError) {
    const std::vector<std::vector<std::string>> commands = {
        {}, {"prefs"}, {"nonsense"}, {"prefs", "set", "QuorvixEnabled"}, {"status", "--nonsense"}, {"notify"}};
    for (const std::vector<std::string>& command : commands) {
        EXPECT_EQ(tool.run(command), ExitStatus::usage);
        EXPECT_THAT(tool.error.str(), StartsWith("quorvixctl: "));
        EXPECT_EQ(std::ranges::count(tool.error.str(), '\n'), 1) << tool.error.str();
        EXPECT_EQ(tool.out.str(), "");
    }
}

TEST_F(CommandLine, AMistypedCommandIsNamed) {
    EXPECT_EQ(tool.run({"bogus"}), ExitStatus::usage);
    EXPECT_EQ(tool.error.str(), "quorvixctl: \"bogus\" is not a command (\"quorvixctl --help\" says more)\n");
    EXPECT_EQ(tool.run({"prefs", "bogus", "--json"}), ExitStatus::usage);
    EXPECT_EQ(tool.error.str(), "quorvixctl: \"bogus\" is not a command (\"quorvixctl prefs --help\" says more)\n");
    EXPECT_EQ(tool.run({"--bogus"}), ExitStatus::usage);
    EXPECT_THAT(tool.error.str(), HasSubstr("\"--bogus\" is not an option"));
    EXPECT_EQ(tool.run({"a\nb\033[1m"}), ExitStatus::usage);
    EXPECT_THAT(tool.error.str(), HasSubstr("\"a?b?[1m\" is not a command"));
}

TEST_F(CommandLine, ACommandThatLacksSomethingIsToldWhereToReadOn) {
    EXPECT_EQ(tool.run({"prefs", "get"}), ExitStatus::usage);
    EXPECT_EQ(tool.error.str(), "quorvixctl: KEY is required (\"quorvixctl prefs get --help\" says more)\n");
}

TEST_F(CommandLine, TellsItsVersion) {
    EXPECT_EQ(tool.run({"--version"}), ExitStatus::done);
    EXPECT_EQ(tool.out.str(), "quorvixctl " QUORVIX_VERSION "\n");
    EXPECT_EQ(tool.error.str(), "");
}

TEST_F(CommandLine, NotifyPostsTheName) {
    EXPECT_EQ(tool.run({"notify", "com.norvane.da.tasking_changed"}), ExitStatus::done);
    EXPECT_THAT(tool.posted, ElementsAre("com.norvane.da.tasking_changed"));
}

TEST_F(CommandLine, NotifyRefusesWhatIsNoName) {
    for (const std::string& name :
         {std::string(), std::string("."), std::string(".."), std::string("../../etc/passwd"), std::string(256, 'n')}) {
        EXPECT_EQ(tool.run({"notify", name}), ExitStatus::usage) << name;
    }
    EXPECT_EQ(tool.run({"notify", std::string(255, 'n')}), ExitStatus::done);
    EXPECT_THAT(tool.posted, ElementsAre(std::string(255, 'n')));
}

TEST_F(CommandLine, AFailedPostIsSaid) {
    tool.postError = ENOSPC;
    EXPECT_EQ(tool.run({"notify", "name"}), ExitStatus::failed);
    EXPECT_THAT(tool.error.str(), HasSubstr("No space left on device"));
}

TEST_F(CommandLine, StatusWithoutADaemonSaysSo) {
    EXPECT_EQ(tool.run({"status"}), ExitStatus::notRunning);
    EXPECT_THAT(tool.error.str(), HasSubstr("quorvixd is not running (nothing listens at /nonexistent/state)"));
    EXPECT_EQ(tool.out.str(), "");
}

}  // namespace
}  // namespace quorvix::ctl
