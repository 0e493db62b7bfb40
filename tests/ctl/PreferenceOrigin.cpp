#include "ctl/PreferenceOrigin.h"

#include <gmock/gmock.h>

#include <fstream>
#include <nlohmann/json.hpp>

#include "tests/ctl/Tool.h"
#include "tests/support/TemporaryFolder.h"

namespace quorvix::ctl {
namespace {

using testing::HasSubstr;

PreferenceOrigin origin(const char* key, const PropertyListDictionary& stored,
                        const PropertyListDictionary& profile = {}) {
    return originOf(*findKnownPreference(key), stored, profile);
}

TEST(PreferenceOrigin, TheProfileDecidesAndLocks) {
    const auto found = origin("QuorvixEnabled", {{"QuorvixEnabled", true}}, {{"QXProfile.QuorvixEnabled", 0}});
    EXPECT_EQ(found.decider, PreferenceDecider::profile);
    EXPECT_EQ(found.value, "false");
    EXPECT_TRUE(found.locked);
    EXPECT_EQ(found.remark, "the store says true");
}

TEST(PreferenceOrigin, AProfilesTextIsPassedOver) {
    const auto found = origin("QuorvixEnabled", {{"QuorvixEnabled", 1}}, {{"QXProfile.QuorvixEnabled", "true"}});
    EXPECT_EQ(found.decider, PreferenceDecider::store);
    EXPECT_EQ(found.value, "true");
    EXPECT_FALSE(found.locked);
    EXPECT_EQ(found.remark, "passed over in the profile: string, no number");
}

TEST(PreferenceOrigin, OnlyFourKeysAreTheProfiles) {
    EXPECT_EQ(origin("QuorvixEnableHUD", {}, {{"QXProfile.QuorvixEnableHUD", true}}).decider,
              PreferenceDecider::fallback);
}

TEST(PreferenceOrigin, WithoutEitherTheDefaultHolds) {
    EXPECT_EQ(origin("QuorvixReportPeriod", {}).value, "3600");
    EXPECT_EQ(origin("QuorvixReportPeriod", {}).decider, PreferenceDecider::fallback);
    EXPECT_EQ(origin("QuorvixReportPeriod", {}).remark, "a running quorvixd keeps the value it had");
    EXPECT_EQ(origin("QuorvixEnabled", {{"QuorvixEnabled", "true"}}).value, "false");
}

TEST(PreferenceOrigin, NumbersReadAsTheDaemonReadsThem) {
    EXPECT_EQ(origin("QuorvixDailyLogLimit", {{"QuorvixDailyLogLimit", std::int64_t{0x1'0000'0007}}}).value, "7");
    EXPECT_EQ(origin("QuorvixDailyLogLimit", {{"QuorvixDailyLogLimit", 1e300}}).value, "2147483647");
    EXPECT_EQ(origin("QuorvixEnabled", {{"QuorvixEnabled", 0.5}}).value, "true");
}

TEST(PreferenceOrigin, AThresholdCountsOnlyAboveZero) {
    constexpr const char* kKey = "QuorvixAppActivationLoggingCPUUtilizationThreshold";
    EXPECT_EQ(origin(kKey, {{kKey, 0.0}}).decider, PreferenceDecider::fallback);
    EXPECT_EQ(origin(kKey, {{kKey, 0.0}}).value, "50");
    EXPECT_EQ(origin(kKey, {{kKey, 0.001}}).decider, PreferenceDecider::store);
}

class OriginCommand : public testing::Test {
protected:
    OriginCommand() {
        tool.services.profilePath = folder.path() + "/profile.plist";
        std::ofstream(tool.services.profilePath)
            << "<plist "
               "version=\"1.0\"><dict><key>QXProfile.QuorvixDailyLogLimit</key><integer>3</integer></dict></plist>";
    }
    tests::TemporaryFolder folder;
    Tool tool;
};

TEST_F(OriginCommand, ListShowsWhatDecidesEachKey) {
    EXPECT_EQ(tool.run({"prefs", "list", "--origin", "--json"}), ExitStatus::done);
    const auto list = nlohmann::json::parse(tool.out.str());
    EXPECT_EQ(list.size(), knownPreferences().size());
    for (const auto& entry : list) {
        const bool locked = entry["key"] == "QuorvixDailyLogLimit";
        EXPECT_EQ(entry["locked"], locked) << entry;
        EXPECT_EQ(entry["origin"], locked ? "profile" : "default") << entry;
    }
}

TEST_F(OriginCommand, NoLineEndsInBlanks) {
    EXPECT_EQ(tool.run({"prefs", "list", "--origin"}), ExitStatus::done);
    EXPECT_THAT(tool.out.str(), HasSubstr("locked\n"));
    EXPECT_THAT(tool.out.str(), testing::Not(HasSubstr(" \n")));
}

TEST_F(OriginCommand, GetShowsOneKeyThatIsNotStored) {
    EXPECT_EQ(tool.run({"prefs", "get", "QuorvixDailyLogLimit", "--origin"}), ExitStatus::done);
    EXPECT_THAT(tool.out.str(), HasSubstr("QuorvixDailyLogLimit  3      profile     locked"));
}

TEST_F(OriginCommand, SettingALockedKeySaysThatItHasNoEffect) {
    EXPECT_EQ(tool.run({"prefs", "set", "QuorvixDailyLogLimit", "9"}), ExitStatus::done);
    EXPECT_THAT(tool.error.str(), HasSubstr("decides QuorvixDailyLogLimit"));
    EXPECT_EQ(tool.run({"prefs", "set", "QuorvixEnabled", "true"}), ExitStatus::done);
    EXPECT_EQ(tool.error.str(), "");
}

TEST_F(OriginCommand, ADamagedProfileIsSaidAndPassedOver) {
    std::ofstream(tool.services.profilePath) << "<plist>";
    EXPECT_EQ(tool.run({"prefs", "get", "QuorvixDailyLogLimit", "--origin", "--json"}), ExitStatus::done);
    EXPECT_THAT(tool.error.str(), HasSubstr("is passed over"));
    EXPECT_EQ(nlohmann::json::parse(tool.out.str())[0]["origin"], "default");
}

}  // namespace
}  // namespace quorvix::ctl
