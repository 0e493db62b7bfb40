#include "ctl/PreferencesCommand.h"

#include <gmock/gmock.h>

#include <cerrno>

#include "tests/ctl/Tool.h"

namespace quorvix::ctl {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

const std::string kChange = "com.norvane.quorvix.pref_changed";

class Preferences : public testing::Test {
protected:
    std::optional<PropertyListValue> stored(std::string_view key, const PreferenceDomain& domain = kDa) {
        const PropertyListDictionary all = tool.preferences.stored(domain);
        const auto found = all.find(key);
        return found == all.end() ? std::nullopt : std::optional(found->second);
    }

    void expectRefused(std::vector<std::string> arguments, const std::string& message) {
        EXPECT_EQ(tool.run(std::move(arguments)), ExitStatus::usage);
        EXPECT_THAT(tool.error.str(), HasSubstr(message));
        EXPECT_THAT(tool.preferences.calls(), IsEmpty());
        EXPECT_THAT(tool.posted, IsEmpty());
    }

    Tool tool;
};

TEST_F(Preferences, SetWritesABooleanAndPostsTheChange) {
    EXPECT_EQ(tool.run({"prefs", "set", "QuorvixEnabled", "true"}), ExitStatus::done);
    EXPECT_EQ(stored("QuorvixEnabled"), PropertyListValue(true));
    EXPECT_THAT(tool.posted, ElementsAre(kChange));
    EXPECT_EQ(tool.error.str(), "");
}

TEST_F(Preferences, SetUsesTheKeysOwnKind) {
    EXPECT_EQ(tool.run({"prefs", "set", "QuorvixDailyLogLimit", "7"}), ExitStatus::done);
    EXPECT_EQ(tool.run({"prefs", "set", "QuorvixReportPeriod", "60"}), ExitStatus::done);
    EXPECT_EQ(stored("QuorvixDailyLogLimit"), PropertyListValue(7));
    EXPECT_EQ(stored("QuorvixReportPeriod"), PropertyListValue(60.0));
}

TEST_F(Preferences, SetUsesTheKeysOwnDomain) {
    EXPECT_EQ(tool.run({"prefs", "set", "QuorvixEnableAppActivationLogging", "on"}), ExitStatus::done);
    EXPECT_EQ(stored("QuorvixEnableAppActivationLogging", kQuorvix), PropertyListValue(true));
    EXPECT_EQ(stored("QuorvixEnableAppActivationLogging"), std::nullopt);
}

TEST_F(Preferences, SetTakesNegativeNumbers) {
    EXPECT_EQ(tool.run({"prefs", "set", "QuorvixDailyLogLimit", "-1"}), ExitStatus::done) << tool.error.str();
    EXPECT_EQ(stored("QuorvixDailyLogLimit"), PropertyListValue(-1));
}

TEST_F(Preferences, SetRefusesAWrongKindAndSaysWhatItTakes) {
    expectRefused({"prefs", "set", "QuorvixEnabled", "5"}, "QuorvixEnabled takes true or false, not \"5\"");
    expectRefused({"prefs", "set", "QuorvixReportPeriod", "60s"}, "takes a number such as 60 or 0.5, not \"60s\"");
    expectRefused({"prefs", "set", "QuorvixReportPeriod", "nan"}, "takes a number");
    expectRefused({"prefs", "set", "QuorvixDailyLogLimit", "1.5"}, "takes a whole number");
    expectRefused({"prefs", "set", "QuorvixDailyLogLimit", ""}, "takes a whole number");
    expectRefused({"prefs", "set", "QuorvixMemoryLoggingInterval", "-1"}, "a whole number from 0 to 4294967295");
}

TEST_F(Preferences, SetTakesIntegersUpToTheirBoundsOnly) {
    EXPECT_EQ(tool.run({"prefs", "set", "QuorvixDailyLogLimit", "2147483647"}), ExitStatus::done);
    EXPECT_EQ(tool.run({"prefs", "set", "QuorvixDailyLogLimit", "2147483648"}), ExitStatus::usage);
    EXPECT_EQ(tool.run({"prefs", "set", "QuorvixMemoryLoggingInterval", "4294967295"}), ExitStatus::done);
    EXPECT_EQ(tool.run({"prefs", "set", "QuorvixMemoryLoggingInterval", "4294967296"}), ExitStatus::usage);
}

TEST_F(Preferences, SetRefusesAnUnknownKeyWithoutForce) {
    expectRefused({"prefs", "set", "QuorvixEnable", "true"}, "\"QuorvixEnable\" is not a key of quorvixd");
}

TEST_F(Preferences, ForceNeedsATypeForAnUnknownKey) {
    expectRefused({"prefs", "set", "Other", "1", "--force"}, "an unknown key needs --type");
    EXPECT_EQ(tool.run({"prefs", "set", "Other", "1", "--force", "--type", "string", "--domain", "org.example"}),
              ExitStatus::done);
    EXPECT_EQ(stored("Other", {"org.example", "mobile"}), PropertyListValue("1"));
}

TEST_F(Preferences, AnotherDomainThanTheKeysIsRefusedWithoutForce) {
    expectRefused({"prefs", "set", "QuorvixEnabled", "true", "--domain", "com.norvane.quorvix"},
                  "quorvixd reads QuorvixEnabled from com.norvane.da");
}

TEST_F(Preferences, ADomainIsNeverAPath) {
    expectRefused({"prefs", "set", "QuorvixEnabled", "true", "--force", "--domain", "../etc/x"}, "without \"/\"");
    EXPECT_EQ(tool.run({"prefs", "list", "--domain", "../etc/x"}), ExitStatus::usage);
}

TEST_F(Preferences, AnotherTypeThanTheKeysIsRefusedWithoutForce) {
    expectRefused({"prefs", "set", "QuorvixEnabled", "true", "--type", "string"}, "is of type bool, not string");
}

TEST_F(Preferences, NoNotifyPostsNothing) {
    EXPECT_EQ(tool.run({"prefs", "set", "QuorvixEnabled", "true", "--no-notify"}), ExitStatus::done);
    EXPECT_THAT(tool.posted, IsEmpty());
}

TEST_F(Preferences, AFailedWriteFailsAndPostsNothing) {
    tool.preferences.faults.failNext("synchronise", ErrorCode{EIO});
    EXPECT_EQ(tool.run({"prefs", "set", "QuorvixEnabled", "true"}), ExitStatus::failed);
    EXPECT_THAT(tool.error.str(), HasSubstr("com.norvane.da could not be written: Input/output error"));
    EXPECT_THAT(tool.posted, IsEmpty());
}

TEST_F(Preferences, AFailedPostIsSaidAlthoughTheValueIsSaved) {
    tool.postError = EACCES;
    EXPECT_EQ(tool.run({"prefs", "set", "QuorvixEnabled", "true"}), ExitStatus::failed);
    EXPECT_THAT(tool.error.str(), HasSubstr("saved, but the change could not be posted: Permission denied"));
    EXPECT_EQ(stored("QuorvixEnabled"), PropertyListValue(true));
}

TEST_F(Preferences, GetPrintsTheValue) {
    tool.preferences.change("QuorvixReportPeriod", PropertyListValue(0.5), kDa);
    EXPECT_EQ(tool.run({"prefs", "get", "QuorvixReportPeriod"}), ExitStatus::done);
    EXPECT_EQ(tool.out.str(), "0.5\n");
}

TEST_F(Preferences, GetOfAnAbsentKeyFailsAndSaysWhatThenHolds) {
    EXPECT_EQ(tool.run({"prefs", "get", "QuorvixEnabled"}), ExitStatus::failed);
    EXPECT_EQ(tool.out.str(), "");
    EXPECT_THAT(tool.error.str(), HasSubstr("QuorvixEnabled is not set (then: false)"));
}

TEST_F(Preferences, AListThatCannotBeReadIsSaid) {
    tool.readError = EINVAL;
    for (const std::vector<std::string>& command :
         {std::vector<std::string>{"prefs", "get", "QuorvixEnabled"}, std::vector<std::string>{"prefs", "list"}}) {
        EXPECT_EQ(tool.run(command), ExitStatus::failed);
        EXPECT_THAT(tool.error.str(), HasSubstr("com.norvane.da could not be read: Invalid argument"));
    }
}

TEST_F(Preferences, GetWarnsOfAValueThatTheDaemonDoesNotTake) {
    tool.preferences.change("QuorvixEnabled", PropertyListValue("true"), kDa);
    EXPECT_EQ(tool.run({"prefs", "get", "QuorvixEnabled"}), ExitStatus::done);
    EXPECT_EQ(tool.out.str(), "true\n");
    EXPECT_THAT(tool.error.str(), HasSubstr("stored as string"));
}

TEST_F(Preferences, UnsetRemovesTheKeyAndPostsTheChange) {
    tool.preferences.change("QuorvixEnabled", PropertyListValue(true), kDa);
    EXPECT_EQ(tool.run({"prefs", "unset", "QuorvixEnabled"}), ExitStatus::done);
    EXPECT_EQ(stored("QuorvixEnabled"), std::nullopt);
    EXPECT_THAT(tool.posted, ElementsAre(kChange));
}

TEST_F(Preferences, ListShowsKnownKeysAndWhatElseIsStored) {
    tool.preferences.change("QuorvixEnabled", PropertyListValue(true), kDa);
    tool.preferences.change("QuorvixDailyLogLimit", PropertyListValue("many"), kDa);
    tool.preferences.change("Foreign\x1b[2J", PropertyListValue(1), kDa);
    EXPECT_EQ(tool.run({"prefs", "list"}), ExitStatus::done);
    const std::string out = tool.out.str();
    EXPECT_THAT(out, testing::ContainsRegex("QuorvixEnabled +bool +true +hang tracing"));
    EXPECT_THAT(out, testing::ContainsRegex("QuorvixDailyLogLimit +int +many +of the wrong kind"));
    EXPECT_THAT(out, testing::ContainsRegex("Foreign\\?\\[2J +int +1 +not a key of quorvixd"));
    for (const KnownPreference& known : knownPreferences()) EXPECT_THAT(out, HasSubstr(std::string(known.key)));
}

TEST_F(Preferences, ListOfOneDomainLeavesTheOtherOut) {
    EXPECT_EQ(tool.run({"prefs", "list", "--domain", "com.norvane.quorvix"}), ExitStatus::done);
    EXPECT_THAT(tool.out.str(), HasSubstr("QuorvixEnableAppActivationLogging"));
    EXPECT_THAT(tool.out.str(), testing::Not(HasSubstr("QuorvixDailyLogLimit")));
}

}  // namespace
}  // namespace quorvix::ctl
