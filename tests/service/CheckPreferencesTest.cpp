#include "tests/support/DaemonWorld.h"

namespace quorvix::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using Call = sim::SimPreferences::Call;

Call set(std::string key, PropertyListValue value) {
    return {Call::Kind::set, "com.norvane.da", "mobile", std::move(key), std::move(value)};
}
Call remove(std::string key) { return {Call::Kind::remove, "com.norvane.da", "mobile", std::move(key)}; }
const Call kSynchronise{Call::Kind::synchronise, "com.norvane.da", "mobile"};

// An internal device whose preferences are checked; nothing else of the start-up runs.
class CheckPreferences : public DaemonWorld {
protected:
    void SetUp() override { device.capabilities.setAnswer("InternalBuild", true); }
    // What is written when the install already has all it needs.
    void settle() {
        prefer("QuorvixInternalSettingCreated", true);
        prefer("QuorvixInternalSettingsVersion", 2);
        prefer("QuorvixEnableSwivex", true);
    }
    const std::vector<Call>& check() {
        checkPreferences();
        return device.preferences.calls();
    }
    std::optional<PropertyListValue> stored(std::string_view key) {
        const auto list = device.preferences.stored(kDaemonDomain);
        const auto found = list.find(key);
        return found == list.end() ? std::nullopt : std::optional(found->second);
    }
};

TEST_F(CheckPreferences, LeavesACustomersDeviceAlone) {
    device.capabilities.setAnswer("InternalBuild", false);
    EXPECT_THAT(check(), IsEmpty());
    EXPECT_FALSE(settings().internalBuild);
    EXPECT_THAT(device.log.lines(), IsEmpty());
    EXPECT_THAT(device.capabilities.questions(), ElementsAre("InternalBuild"));
}

TEST_F(CheckPreferences, FillsInAFreshInternalInstall) {
    EXPECT_THAT(check(),
                ElementsAre(set("QuorvixEnabled", true), set("QuorvixInternalSettingCreated", true),
                            remove("QuorvixDuration"), set("QuorvixInternalSettingsVersion", 2),
                            set("QuorvixEnableSwivex", true), set("QuorvixEnableMemoryLogging", true), kSynchronise));
    EXPECT_TRUE(settings().internalBuild);
    EXPECT_THAT(texts(), ElementsAre("checkPreferences: Internal install, force enabled."));
    EXPECT_EQ(levelOf("checkPreferences: Internal install, force enabled."), LogLevel::info);
}

TEST_F(CheckPreferences, WritesToTheDisk) {
    checkPreferences();
    EXPECT_EQ(stored("QuorvixEnabled"), PropertyListValue(true));
    EXPECT_EQ(stored("QuorvixInternalSettingsVersion"), PropertyListValue(2));
}

TEST_F(CheckPreferences, OnlyForcesMemoryLoggingOnASettledInstall) {
    settle();
    EXPECT_THAT(check(), ElementsAre(set("QuorvixEnableMemoryLogging", true), kSynchronise));
    EXPECT_THAT(device.log.lines(), IsEmpty());
}

TEST_F(CheckPreferences, LeavesHangTracingSwitchedOffOnASettledInstall) {
    settle();
    prefer("QuorvixEnabled", false);
    checkPreferences();
    EXPECT_EQ(stored("QuorvixEnabled"), PropertyListValue(false));
}

TEST_F(CheckPreferences, ForcesMemoryLoggingEveryTime) {
    settle();
    prefer("QuorvixEnableMemoryLogging", false);
    checkPreferences();
    EXPECT_EQ(stored("QuorvixEnableMemoryLogging"), PropertyListValue(true));
}

TEST_F(CheckPreferences, EnablesAgainWhereTheMarkIsFalse) {
    settle();
    prefer("QuorvixInternalSettingCreated", false);
    prefer("QuorvixEnabled", false);
    checkPreferences();
    EXPECT_EQ(stored("QuorvixEnabled"), PropertyListValue(true));
    EXPECT_EQ(stored("QuorvixInternalSettingCreated"), PropertyListValue(true));
}

TEST_F(CheckPreferences, EnablesAgainWhereTheMarkIsNoNumber) {
    settle();
    prefer("QuorvixInternalSettingCreated", "true");
    checkPreferences();
    EXPECT_TRUE(hasText("checkPreferences: Internal install, force enabled."));
}

TEST_F(CheckPreferences, TakesAnyNumberButZeroAsTheMark) {
    settle();
    prefer("QuorvixInternalSettingCreated", 0.5);
    checkPreferences();
    EXPECT_THAT(device.log.lines(), IsEmpty());
}

TEST_F(CheckPreferences, RemovesTheDurationOnlyWhereThereIsNoVersion) {
    prefer("QuorvixDuration", 60);
    checkPreferences();
    EXPECT_EQ(stored("QuorvixDuration"), std::nullopt);
}

class CheckPreferencesVersion : public CheckPreferences, public ::testing::WithParamInterface<PropertyListValue> {};
class CurrentVersion : public CheckPreferencesVersion {};
class OtherVersion : public CheckPreferencesVersion {};

TEST_P(OtherVersion, IsReplacedAndKeepsTheDuration) {
    settle();
    prefer("QuorvixInternalSettingsVersion", GetParam());
    prefer("QuorvixDuration", 60);
    EXPECT_THAT(check(), ElementsAre(set("QuorvixInternalSettingsVersion", 2), set("QuorvixEnableMemoryLogging", true),
                                     kSynchronise));
    EXPECT_EQ(stored("QuorvixDuration"), PropertyListValue(60));
}

INSTANTIATE_TEST_SUITE_P(Each, OtherVersion,
                         ::testing::Values(PropertyListValue(1), PropertyListValue(3), PropertyListValue(0),
                                           PropertyListValue(-2), PropertyListValue(1.9), PropertyListValue(true),
                                           PropertyListValue("2"), PropertyListValue(PropertyListArray{2})));

TEST_P(CurrentVersion, IsLeftAlone) {
    settle();
    prefer("QuorvixInternalSettingsVersion", GetParam());
    EXPECT_THAT(check(), ElementsAre(set("QuorvixEnableMemoryLogging", true), kSynchronise));
}

INSTANTIATE_TEST_SUITE_P(Each, CurrentVersion,
                         ::testing::Values(PropertyListValue(2), PropertyListValue(2.9),
                                           PropertyListValue(std::int64_t{0x1'0000'0002})));

TEST_F(CheckPreferences, LeavesTraceReportsSwitchedOff) {
    settle();
    prefer("QuorvixEnableSwivex", false);
    checkPreferences();
    EXPECT_EQ(stored("QuorvixEnableSwivex"), PropertyListValue(false));
}

TEST_F(CheckPreferences, TraceReportsSetToNoNumberAreAbsent) {
    settle();
    prefer("QuorvixEnableSwivex", "yes");
    checkPreferences();
    EXPECT_EQ(stored("QuorvixEnableSwivex"), PropertyListValue(true));
}

TEST_F(CheckPreferences, WhatCannotBeWrittenIsStillInForce) {
    device.preferences.faults.failAlways("synchronise", ErrorCode{EROFS});
    start();
    EXPECT_TRUE(settings().hangTracingEnabled);
    EXPECT_TRUE(settings().memoryLoggingEnabled);
    EXPECT_EQ(stored("QuorvixEnabled"), std::nullopt);
}

}  // namespace
}  // namespace quorvix::test
