#include <limits>

#include "tests/support/DaemonWorld.h"

namespace quorvix::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using Call = sim::SimPreferences::Call;

constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr std::uint64_t kDefaultReportPeriod = 86'400'000'000;

// Kinds that are no numbers.
PropertyListValue wrongKinds(int index) {
    switch (index) {
        case 0: return "1";
        case 1: return PropertyListDate{1};
        case 2: return PropertyListData{{1}};
        case 3: return PropertyListArray{1};
        default: return PropertyListDictionary{{"value", 1}};
    }
}

// A daemon that stays up whatever is switched off, because activation logging is on. Started, with an empty log.
class RefreshPreferences : public DaemonWorld {
protected:
    using DaemonWorld::DaemonWorld;
    void SetUp() override {
        prefer("QuorvixEnableAppActivationLogging", true, kQuorvixDomain);
        start();
        device.log.clear();
    }
    // What a refresh says after this change.
    std::vector<std::string> refreshedWith(std::string_view key, PropertyListValue value) {
        prefer(key, std::move(value));
        return refreshed();
    }
    std::vector<std::string> refreshed() {
        device.log.clear();
        refresh();
        return texts();
    }
    void putProfile(PropertyListDictionary entries) { device.propertyLists.put(kManagedProfile, std::move(entries)); }
    // The one line that a refresh says beyond the four of a daemon without settings; "" where there is none.
    std::string lineFor(std::string_view key, PropertyListValue value) {
        std::vector<std::string> lines = refreshedWith(key, std::move(value));
        std::erase_if(lines, [](const std::string& line) {
            return line == "refreshPreferences: Memory Logging Disabled" ||
                   line == "refreshPreferences: Hang Tracing Disabled" ||
                   line == "refreshPreferences: QuorvixEnableSwivex = 0" ||
                   line == "refreshPreferences: App Activation Logging Enabled";
        });
        EXPECT_LE(lines.size(), 1u);
        if (lines.empty()) return "";
        EXPECT_EQ(levelOf(lines[0]), LogLevel::info);
        return lines[0];
    }
};

class RefreshPreferencesInDeviceTicks : public RefreshPreferences {
protected:
    RefreshPreferencesInDeviceTicks() : RefreshPreferences(sim::SimTickClock::kDeviceTicks) {}
};

TEST_F(RefreshPreferences, WithoutAnySettingSaysWhatIsOff) {
    EXPECT_THAT(refreshed(),
                ElementsAre("refreshPreferences: Memory Logging Disabled", "refreshPreferences: Hang Tracing Disabled",
                            "refreshPreferences: QuorvixEnableSwivex = 0",
                            "refreshPreferences: App Activation Logging Enabled"));
    for (const auto& line : device.log.lines()) EXPECT_EQ(line.level, LogLevel::info) << line.text;
}

TEST_F(RefreshPreferences, WithEverySettingSaysThemInOrder) {
    prefer("QuorvixEnabled", true);
    prefer("QuorvixReportPeriod", 60);
    prefer("QuorvixDailyLogLimit", 30);
    prefer("QuorvixEnableSwivex", true);
    prefer("QuorvixEnableHUD", true);
    prefer("QuorvixEnableMemoryLogging", true);
    prefer("QuorvixMemoryLoggingInterval", 600);
    prefer("QuorvixAppActivationLoggingCPUUtilizationThreshold", 12.5);
    prefer("QuorvixAppActivationLoggingMaxActivationCount", 10);
    EXPECT_THAT(
        refreshed(),
        ElementsAre("refreshPreferences: Memory Logging Enabled",
                    "refreshPreferences: change memoryLoggingInterval to 600",
                    "refreshPreferences: Hang Tracing Enabled", "refreshPreferences: QuorvixEnableHUD: 1",
                    "refreshPreferences: QuorvixReportPeriod = 60", "Max Daily Log Limit: 25 -> 30",
                    "Daily Log credits: 25 -> 30", "refreshPreferences: QuorvixDailyLogLimit = 30",
                    "refreshPreferences: QuorvixEnableSwivex = 1", "refreshPreferences: App Activation Logging Enabled",
                    "refreshPreferences: QuorvixAppActivationLoggingMaxActivationCount = 10",
                    "refreshPreferences: QuorvixAppActivationLoggingCPUUtilizationThreshold = 12.500000"));
    for (const auto& line : device.log.lines()) EXPECT_EQ(line.level, LogLevel::info) << line.text;
}

TEST_F(RefreshPreferences, SynchronisesItsDomainOnceAndWritesNothing) {
    device.preferences.clearCalls();
    refresh();
    EXPECT_THAT(device.preferences.calls(), ElementsAre(Call{Call::Kind::synchronise, "com.norvane.da", "mobile"}));
}

TEST_F(RefreshPreferences, StartsFromTheDefaults) {
    EXPECT_FALSE(settings().hudEnabled);
    EXPECT_FALSE(settings().swivexEnabled);
    EXPECT_EQ(settings().memoryLoggingInterval, 3600u);
    EXPECT_EQ(settings().reportPeriodTicks, kDefaultReportPeriod);
    EXPECT_EQ(settings().maxActivationCount, 200u);
    EXPECT_EQ(settings().cpuUtilizationThreshold, 50.0);
    EXPECT_EQ(hangState().maxDailyLogs, 25);
}

TEST_F(RefreshPreferences, RunsOnEachOfTheThreeNotifications) {
    for (const auto name : {"com.norvane.da.tasking_changed", "com.norvane.Provisia.profileListChanged",
                            "com.norvane.quorvix.pref_changed"}) {
        device.log.clear();
        device.notifications.post(name);
        device.scheduler.runPending();
        EXPECT_TRUE(hasText("refreshPreferences: Hang Tracing Disabled")) << name;
    }
}

TEST_F(RefreshPreferences, SaysThatActivationPreferencesChangedFirst) {
    device.notifications.post("com.norvane.quorvix.pref_changed");
    device.scheduler.runPending();
    EXPECT_EQ(texts()[0], "QXActivationStats: Activation Logging preferences changed!");
    EXPECT_EQ(levelOf(texts()[0]), LogLevel::info);
    EXPECT_EQ(texts()[1], "refreshPreferences: Memory Logging Disabled");
}

TEST_F(RefreshPreferences, ManyAtOnceEndInTheLastState) {
    for (int i = 0; i <= 100; ++i) {
        prefer("QuorvixEnabled", i % 2 == 0);
        device.notifications.post("com.norvane.da.tasking_changed");
        if (i % 3 == 0) device.scheduler.runPending();
    }
    device.scheduler.runPending();
    EXPECT_TRUE(settings().hangTracingEnabled);
}

TEST_F(RefreshPreferences, TheOneReadOfADomainThatFailsReadsAsAbsent) {
    refreshedWith("QuorvixEnabled", true);
    device.preferences.faults.failNext("value", ErrorCode{EIO});
    EXPECT_EQ(refreshed()[1], "refreshPreferences: Hang Tracing Disabled");
    EXPECT_EQ(refreshed()[1], "refreshPreferences: Hang Tracing Enabled");
}

// Switches.

TEST_F(RefreshPreferences, SwitchingHangTracingOffStopsAllWatching) {
    refreshedWith("QuorvixEnabled", true);
    watch(412);
    watch(413, "/Applications/Maps.app/Maps");
    EXPECT_THAT(refreshedWith("QuorvixEnabled", false),
                ElementsAre("refreshPreferences: Memory Logging Disabled", "refreshPreferences: Hang Tracing Disabled",
                            "dealloc for Mail", "dealloc for Maps", "refreshPreferences: QuorvixEnableSwivex = 0",
                            "refreshPreferences: App Activation Logging Enabled"));
    EXPECT_EQ(device.regions.liveMappings(), 0u);
    EXPECT_FALSE(settings().hangTracingEnabled);
    EXPECT_FALSE(settings().hangCheckTimer);
}

TEST_F(RefreshPreferences, WhatIsWatchedWhileTracingIsOffIsDroppedAtTheNextRefresh) {
    watch(412);
    refresh();
    EXPECT_TRUE(hangState().watchedProcesses.empty());
}

TEST_F(RefreshPreferences, RefreshesKeepWhatIsWatched) {
    refreshedWith("QuorvixEnabled", true);
    watch(412);
    refresh();
    EXPECT_TRUE(QXProcessInfo::processForPid(412));
}

TEST_F(RefreshPreferences, SwitchesTakeAnyNumberButZero) {
    for (const PropertyListValue& on : {PropertyListValue(1), PropertyListValue(-1), PropertyListValue(0.25),
                                        PropertyListValue(kInfinity), PropertyListValue(true)}) {
        EXPECT_EQ(refreshedWith("QuorvixEnabled", on)[1], "refreshPreferences: Hang Tracing Enabled");
    }
    for (const PropertyListValue& off : {PropertyListValue(0), PropertyListValue(0.0), PropertyListValue(-0.0),
                                         PropertyListValue(kNaN), PropertyListValue(false)}) {
        EXPECT_EQ(refreshedWith("QuorvixEnabled", off)[1], "refreshPreferences: Hang Tracing Disabled");
    }
}

TEST_F(RefreshPreferences, TraceReportsFallBackToOff) {
    EXPECT_EQ(refreshedWith("QuorvixEnableSwivex", true)[2], "refreshPreferences: QuorvixEnableSwivex = 1");
    EXPECT_TRUE(settings().swivexEnabled);
    device.preferences.change("QuorvixEnableSwivex", std::nullopt, kDaemonDomain);
    EXPECT_EQ(refreshed()[2], "refreshPreferences: QuorvixEnableSwivex = 0");
    EXPECT_FALSE(settings().swivexEnabled);
}

TEST_F(RefreshPreferences, TheHUDKeepsItsStateWithoutTheKey) {
    EXPECT_EQ(lineFor("QuorvixEnableHUD", true), "refreshPreferences: QuorvixEnableHUD: 1");
    device.preferences.change("QuorvixEnableHUD", std::nullopt, kDaemonDomain);
    EXPECT_EQ(refreshed().size(), 4u);
    EXPECT_TRUE(settings().hudEnabled);
    EXPECT_EQ(lineFor("QuorvixEnableHUD", 0), "refreshPreferences: QuorvixEnableHUD: 0");
    EXPECT_FALSE(settings().hudEnabled);
}

TEST_F(RefreshPreferences, ActivationLoggingIsReadFromItsOwnDomain) {
    prefer("QuorvixEnabled", true);
    prefer("QuorvixEnableAppActivationLogging", false, kQuorvixDomain);
    prefer("QuorvixEnableAppActivationLogging", true);
    EXPECT_EQ(refreshed().back(), "refreshPreferences: App Activation Logging Disabled");
    EXPECT_EQ(levelOf(texts().back()), LogLevel::info);
    EXPECT_FALSE(settings().appActivationLoggingEnabled);
}

TEST_F(RefreshPreferences, ActivationLoggingOfTheWrongKindIsOff) {
    prefer("QuorvixEnabled", true);
    prefer("QuorvixEnableAppActivationLogging", "YES", kQuorvixDomain);
    EXPECT_EQ(refreshed().back(), "refreshPreferences: App Activation Logging Disabled");
}

TEST_F(RefreshPreferences, TheLastSourceSwitchedOffEndsTheDaemon) {
    prefer("QuorvixEnabled", true);
    refresh();
    watch(412);
    prefer("QuorvixEnabled", false);
    prefer("QuorvixEnableAppActivationLogging", false, kQuorvixDomain);
    device.log.clear();
    EXPECT_THROW(refresh(), sim::SimulatedExit);
    EXPECT_THAT(texts(),
                ElementsAre("refreshPreferences: Memory Logging Disabled", "refreshPreferences: Hang Tracing Disabled",
                            "dealloc for Mail", "refreshPreferences: QuorvixEnableSwivex = 0",
                            "refreshPreferences: App Activation Logging Disabled",
                            "quorvixd is exiting. All sources turned off"));
    EXPECT_EQ(device.lifecycle.exitStatus(), 0);
}

// The managed profile.

TEST_F(RefreshPreferences, TheProfileSwitchesHangTracingOffOverTheStore) {
    putProfile({{"QXProfile.QuorvixEnabled", false}});
    EXPECT_EQ(refreshedWith("QuorvixEnabled", true)[1], "refreshPreferences: Hang Tracing Disabled");
    device.propertyLists.remove(kManagedProfile);
    EXPECT_EQ(refreshed()[1], "refreshPreferences: Hang Tracing Enabled");
}

TEST_F(RefreshPreferences, TheProfileOverridesFourKeys) {
    for (const auto key : {"QuorvixEnabled", "QuorvixReportPeriod", "QuorvixDailyLogLimit", "QuorvixEnableSwivex"}) {
        prefer(key, 0);
    }
    putProfile({{"QXProfile.QuorvixEnabled", 1},
                {"QXProfile.QuorvixReportPeriod", 120},
                {"QXProfile.QuorvixDailyLogLimit", 3},
                {"QXProfile.QuorvixEnableSwivex", true}});
    refresh();
    EXPECT_TRUE(settings().hangTracingEnabled);
    EXPECT_EQ(settings().reportPeriodTicks, 120'000u);
    EXPECT_EQ(hangState().maxDailyLogs, 3);
    EXPECT_TRUE(settings().swivexEnabled);
}

TEST_F(RefreshPreferences, TheProfileOverridesNoOtherKey) {
    putProfile({{"QXProfile.QuorvixEnableHUD", true},
                {"QXProfile.QuorvixEnableMemoryLogging", true},
                {"QXProfile.QuorvixMemoryLoggingInterval", 60},
                {"QXProfile.QuorvixEnableAppActivationLogging", false},
                {"QXProfile.QuorvixAppActivationLoggingMaxActivationCount", 1},
                {"QXProfile.QuorvixAppActivationLoggingCPUUtilizationThreshold", 1.0}});
    EXPECT_EQ(refreshed().size(), 4u);
    EXPECT_FALSE(settings().hudEnabled);
    EXPECT_FALSE(settings().memoryLoggingEnabled);
    EXPECT_EQ(settings().memoryLoggingInterval, 3600u);
}

TEST_F(RefreshPreferences, TheProfilesKeyNeedsItsPrefix) {
    putProfile({{"QuorvixEnabled", true}});
    EXPECT_EQ(refreshed()[1], "refreshPreferences: Hang Tracing Disabled");
}

TEST_F(RefreshPreferences, AProfileThatCannotBeReadIsNone) {
    putProfile({{"QXProfile.QuorvixEnabled", false}});
    device.propertyLists.faults.failNext("readDictionary", ErrorCode{EIO});
    EXPECT_EQ(refreshedWith("QuorvixEnabled", true)[1], "refreshPreferences: Hang Tracing Enabled");
}

class WrongKind : public RefreshPreferences, public ::testing::WithParamInterface<int> {};

TEST_P(WrongKind, InTheProfileLeavesTheStoreInForce) {
    putProfile({{"QXProfile.QuorvixEnabled", wrongKinds(GetParam())}});
    EXPECT_EQ(refreshedWith("QuorvixEnabled", true)[1], "refreshPreferences: Hang Tracing Enabled");
}

TEST_P(WrongKind, InTheStoreReadsAsAbsent) {
    for (const auto key :
         {"QuorvixEnabled", "QuorvixReportPeriod", "QuorvixDailyLogLimit", "QuorvixEnableSwivex", "QuorvixEnableHUD",
          "QuorvixEnableMemoryLogging", "QuorvixMemoryLoggingInterval", "QuorvixAppActivationLoggingMaxActivationCount",
          "QuorvixAppActivationLoggingCPUUtilizationThreshold"}) {
        EXPECT_EQ(lineFor(key, wrongKinds(GetParam())), "") << key;
    }
    EXPECT_FALSE(settings().hangTracingEnabled);
    EXPECT_FALSE(settings().memoryLoggingEnabled);
    EXPECT_EQ(settings().reportPeriodTicks, kDefaultReportPeriod);
}

INSTANTIATE_TEST_SUITE_P(Each, WrongKind, ::testing::Range(0, 5));

// Numbers.

TEST_F(RefreshPreferences, TheReportPeriodBecomesTicks) {
    EXPECT_EQ(lineFor("QuorvixReportPeriod", 60), "refreshPreferences: QuorvixReportPeriod = 60");
    EXPECT_EQ(settings().reportPeriodTicks, 60'000u);
    EXPECT_EQ(lineFor("QuorvixReportPeriod", 1.75), "refreshPreferences: QuorvixReportPeriod = 1");
    EXPECT_EQ(settings().reportPeriodTicks, 1'750u);
    EXPECT_EQ(lineFor("QuorvixReportPeriod", true), "refreshPreferences: QuorvixReportPeriod = 1");
    EXPECT_EQ(settings().reportPeriodTicks, 1'000u);
    EXPECT_EQ(lineFor("QuorvixReportPeriod", 0), "refreshPreferences: QuorvixReportPeriod = 0");
    EXPECT_EQ(settings().reportPeriodTicks, 0u);
}

TEST_F(RefreshPreferencesInDeviceTicks, TheReportPeriodIsConvertedThroughTheTickFactor) {
    refreshedWith("QuorvixReportPeriod", 60);
    EXPECT_EQ(settings().reportPeriodTicks, static_cast<std::uint64_t>(60000.0 / msPerTick()));
    EXPECT_NE(settings().reportPeriodTicks, 1'440'000'000u) << "the factor is not exact";
}

TEST_F(RefreshPreferences, TheReportPeriodIsReadInSinglePrecision) {
    lineFor("QuorvixReportPeriod", 16'777'217);
    EXPECT_EQ(settings().reportPeriodTicks, 16'777'216'000u);
    lineFor("QuorvixReportPeriod", 0.1);
    EXPECT_EQ(settings().reportPeriodTicks, 100u);
    // The fraction of a tick is cut.
    lineFor("QuorvixReportPeriod", 0.0109999);
    EXPECT_EQ(settings().reportPeriodTicks, 10u);
}

TEST_F(RefreshPreferences, TheReportPeriodSaturates) {
    EXPECT_EQ(lineFor("QuorvixReportPeriod", -5), "refreshPreferences: QuorvixReportPeriod = -5");
    EXPECT_EQ(settings().reportPeriodTicks, 0u);
    EXPECT_EQ(lineFor("QuorvixReportPeriod", 1e300), "refreshPreferences: QuorvixReportPeriod = 2147483647");
    EXPECT_EQ(settings().reportPeriodTicks, std::numeric_limits<std::uint64_t>::max());
    EXPECT_EQ(lineFor("QuorvixReportPeriod", kNaN), "refreshPreferences: QuorvixReportPeriod = 0");
    EXPECT_EQ(settings().reportPeriodTicks, 0u);
    EXPECT_EQ(lineFor("QuorvixReportPeriod", -kInfinity), "refreshPreferences: QuorvixReportPeriod = -2147483648");
    EXPECT_EQ(settings().reportPeriodTicks, 0u);
}

TEST_F(RefreshPreferences, TheReportPeriodKeepsItsValueWithoutTheKey) {
    lineFor("QuorvixReportPeriod", 60);
    device.preferences.change("QuorvixReportPeriod", std::nullopt, kDaemonDomain);
    EXPECT_EQ(refreshed().size(), 4u);
    EXPECT_EQ(settings().reportPeriodTicks, 60'000u);
}

TEST_F(RefreshPreferences, TheDailyLimitIsHandedOnAsItStands) {
    for (const auto& [value, limit] : {std::pair{PropertyListValue(0), 0},
                                       {PropertyListValue(-3), -3},
                                       {PropertyListValue(7.9), 7},
                                       {PropertyListValue(std::int64_t{0x1'0000'0005}), 5},
                                       {PropertyListValue(1e300), 2'147'483'647},
                                       {PropertyListValue(kNaN), 0}}) {
        EXPECT_EQ(refreshedWith("QuorvixDailyLogLimit", value)[4],
                  formatText("refreshPreferences: QuorvixDailyLogLimit = %d", std::int32_t{limit}));
        EXPECT_EQ(hangState().maxDailyLogs, limit);
    }
}

TEST_F(RefreshPreferences, TheActivationCountIsUnsignedAndShownSigned) {
    constexpr auto kKey = "QuorvixAppActivationLoggingMaxActivationCount";
    EXPECT_EQ(lineFor(kKey, 10), "refreshPreferences: QuorvixAppActivationLoggingMaxActivationCount = 10");
    EXPECT_EQ(settings().maxActivationCount, 10u);
    EXPECT_EQ(lineFor(kKey, -1), "refreshPreferences: QuorvixAppActivationLoggingMaxActivationCount = -1");
    EXPECT_EQ(settings().maxActivationCount, 4'294'967'295u);
    EXPECT_EQ(lineFor(kKey, 1e300), "refreshPreferences: QuorvixAppActivationLoggingMaxActivationCount = -1");
    EXPECT_EQ(lineFor(kKey, -1.0), "refreshPreferences: QuorvixAppActivationLoggingMaxActivationCount = 0");
    EXPECT_EQ(settings().maxActivationCount, 0u);
}

TEST_F(RefreshPreferences, TheCPUThresholdTakesOnlyWhatIsAboveZero) {
    constexpr auto kKey = "QuorvixAppActivationLoggingCPUUtilizationThreshold";
    for (const double refused : {0.0, -0.0, -1.0, kNaN, -kInfinity}) {
        EXPECT_EQ(lineFor(kKey, refused), "");
        EXPECT_EQ(settings().cpuUtilizationThreshold, 50.0);
    }
    EXPECT_EQ(lineFor(kKey, 5e-324),
              "refreshPreferences: QuorvixAppActivationLoggingCPUUtilizationThreshold = 0.000000");
    EXPECT_EQ(settings().cpuUtilizationThreshold, 5e-324);
    EXPECT_EQ(lineFor(kKey, 7), "refreshPreferences: QuorvixAppActivationLoggingCPUUtilizationThreshold = 7.000000");
    EXPECT_EQ(lineFor(kKey, kInfinity), "refreshPreferences: QuorvixAppActivationLoggingCPUUtilizationThreshold = inf");
}

}  // namespace
}  // namespace quorvix::test
