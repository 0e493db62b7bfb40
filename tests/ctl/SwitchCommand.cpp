#include "ctl/SwitchCommand.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/ctl/Tool.h"

namespace quorvix::ctl {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

PropertyListValue stored(Tool& tool, const PreferenceDomain& domain, const char* key) {
    return tool.preferences.stored(domain).at(key);
}

TEST(SwitchCommand, EnablingHangSetsTracingAndReportsTellsTheDaemonOnceAndStartsIt) {
    Tool tool;
    EXPECT_EQ(tool.run({"enable", "hang"}), ExitStatus::done);
    EXPECT_EQ(stored(tool, kDa, "QuorvixEnabled"), PropertyListValue(true));
    EXPECT_EQ(stored(tool, kDa, "QuorvixEnableSwivex"), PropertyListValue(true));
    EXPECT_EQ(tool.posted.size(), 1u);
    EXPECT_EQ(tool.starts, 1);
}

TEST(SwitchCommand, DisablingHangLeavesReportsAsTheyAreAndStartsNothing) {
    Tool tool;
    tool.run({"enable", "hang"});
    EXPECT_EQ(tool.run({"disable", "hang"}), ExitStatus::done);
    EXPECT_EQ(stored(tool, kDa, "QuorvixEnabled"), PropertyListValue(false));
    EXPECT_EQ(stored(tool, kDa, "QuorvixEnableSwivex"), PropertyListValue(true));
    EXPECT_EQ(tool.posted.size(), 2u);
    EXPECT_EQ(tool.starts, 1);
}

TEST(SwitchCommand, EachJobHasItsOwnKey) {
    Tool tool;
    EXPECT_EQ(tool.run({"enable", "memory"}), ExitStatus::done);
    EXPECT_EQ(stored(tool, kDa, "QuorvixEnableMemoryLogging"), PropertyListValue(true));
    EXPECT_EQ(tool.run({"enable", "activations"}), ExitStatus::done);
    EXPECT_EQ(stored(tool, kQuorvix, "QuorvixEnableAppActivationLogging"), PropertyListValue(true));
    EXPECT_EQ(tool.preferences.stored(kDa).size(), 1u);
}

TEST(SwitchCommand, WhatWentWrongIsSaidAndTheStatusTellsIt) {
    Tool tool;
    tool.startError = ENOSYS;
    EXPECT_EQ(tool.run({"enable", "memory"}), ExitStatus::failed);
    EXPECT_THAT(tool.error.str(), HasSubstr("saved, but quorvixd could not be started: no service manager"));
    tool.startError = EIO;
    EXPECT_EQ(tool.run({"enable", "memory"}), ExitStatus::failed);
    EXPECT_THAT(tool.error.str(), HasSubstr("systemctl status quorvixd"));
    tool.startError = 0;
    tool.postError = EACCES;
    const int starts = tool.starts;
    EXPECT_EQ(tool.run({"enable", "memory"}), ExitStatus::failed);
    EXPECT_EQ(tool.starts, starts);
    EXPECT_EQ(tool.run({"enable", "everything"}), ExitStatus::usage);
    EXPECT_EQ(tool.run({"disable"}), ExitStatus::usage);
}

}  // namespace
}  // namespace quorvix::ctl
