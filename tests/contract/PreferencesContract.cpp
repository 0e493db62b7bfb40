#include <gtest/gtest.h>

#include <memory>

#include "platform/linux/PreferencesFile.h"
#include "platform/linux/PreferencesStore.h"
#include "platform/sim/SimLog.h"
#include "platform/sim/SimPreferences.h"
#include "tests/support/TemporaryFolder.h"

namespace quorvix::preferences_contract {
namespace {

constexpr PreferenceDomain kDomain{"com.norvane.da", "mobile"};
constexpr PreferenceDomain kOtherDomain{"com.norvane.quorvix", "mobile"};

// Gives the store under test, and plays the other program that writes the same list.
struct LinuxHarness {
    tests::TemporaryFolder folder;
    sim::SimLog log;
    linuxos::LinuxPreferencesStore store{log, folder.path("Library/Preferences")};

    void otherProgramSets(const std::string& key, std::optional<PropertyListValue> value) {
        linuxos::LinuxPreferencesStore other(log, folder.path("Library/Preferences"));
        other.setValue(key, std::move(value), kDomain);
        ASSERT_TRUE(other.synchronise(kDomain));
    }
    std::optional<PropertyListValue> otherProgramReads(const std::string& key) {
        return linuxos::LinuxPreferencesStore(log, folder.path("Library/Preferences")).value(key, kDomain);
    }
    // A file stands where the folder should be.
    void breakWrites() { tests::writeWholeFile(folder.path("Library"), ""); }
    void healWrites() { std::filesystem::remove(folder.path("Library")); }
};

struct SimulatedHarness {
    sim::SimPreferences store;

    void otherProgramSets(const std::string& key, std::optional<PropertyListValue> value) {
        store.change(key, std::move(value), kDomain);
    }
    std::optional<PropertyListValue> otherProgramReads(const std::string& key) {
        const PropertyListDictionary list = store.stored(kDomain);
        const auto found = list.find(key);
        return found == list.end() ? std::nullopt : std::optional(found->second);
    }
    void breakWrites() { store.faults.failAlways("synchronise", ErrorCode{ENOTDIR}); }
    void healWrites() { store.faults.heal("synchronise"); }
};

template <class Harness>
class PreferencesContract : public testing::Test {
protected:
    Harness harness_;
    PreferencesStore& store_ = harness_.store;
};

using Implementations = testing::Types<LinuxHarness, SimulatedHarness>;
TYPED_TEST_SUITE(PreferencesContract, Implementations);

TYPED_TEST(PreferencesContract, MissingListReadsAsAbsentKeys) {
    EXPECT_EQ(this->store_.value("QuorvixEnabled", kDomain), std::nullopt);
    EXPECT_TRUE(this->store_.synchronise(kDomain));
}

TYPED_TEST(PreferencesContract, WhatIsSetIsReadAtOnceAndStoredAfterSynchronise) {
    this->store_.setValue("QuorvixEnabled", true, kDomain);
    EXPECT_EQ(this->store_.value("QuorvixEnabled", kDomain), PropertyListValue(true));
    EXPECT_EQ(this->harness_.otherProgramReads("QuorvixEnabled"), std::nullopt);
    EXPECT_TRUE(this->store_.synchronise(kDomain));
    EXPECT_EQ(this->harness_.otherProgramReads("QuorvixEnabled"), PropertyListValue(true));
    EXPECT_EQ(this->store_.value("QuorvixEnabled", kDomain), PropertyListValue(true));
}

TYPED_TEST(PreferencesContract, EveryKindIsKeptAsItIs) {
    const PropertyListArray kinds{true,
                                  std::int64_t{-5},
                                  2.5,
                                  "text",
                                  PropertyListDate{60},
                                  PropertyListData{{1, 2}},
                                  PropertyListDictionary{{"a", PropertyListArray{false}}}};
    for (const PropertyListValue& value : kinds) {
        this->store_.setValue("key", value, kDomain);
        EXPECT_TRUE(this->store_.synchronise(kDomain));
        EXPECT_EQ(this->store_.value("key", kDomain), value);
        EXPECT_EQ(this->harness_.otherProgramReads("key"), value);
    }
}

TYPED_TEST(PreferencesContract, NothingRemovesTheKey) {
    this->harness_.otherProgramSets("QuorvixDuration", 5);
    this->store_.setValue("QuorvixDuration", std::nullopt, kDomain);
    EXPECT_EQ(this->store_.value("QuorvixDuration", kDomain), std::nullopt);
    EXPECT_EQ(this->harness_.otherProgramReads("QuorvixDuration"), PropertyListValue(5));
    EXPECT_TRUE(this->store_.synchronise(kDomain));
    EXPECT_EQ(this->harness_.otherProgramReads("QuorvixDuration"), std::nullopt);
}

TYPED_TEST(PreferencesContract, AnotherProgramsChangeIsSeenWithoutSynchronise) {
    for (int value = 0; value < 5; ++value) {
        this->harness_.otherProgramSets("key", value);
        EXPECT_EQ(this->store_.value("key", kDomain), PropertyListValue(value));
    }
    this->harness_.otherProgramSets("key", std::nullopt);
    EXPECT_EQ(this->store_.value("key", kDomain), std::nullopt);
}

TYPED_TEST(PreferencesContract, SynchroniseKeepsAnotherProgramsKeys) {
    this->store_.setValue("mine", 1, kDomain);
    this->harness_.otherProgramSets("theirs", 2);
    EXPECT_TRUE(this->store_.synchronise(kDomain));
    EXPECT_EQ(this->harness_.otherProgramReads("mine"), PropertyListValue(1));
    EXPECT_EQ(this->harness_.otherProgramReads("theirs"), PropertyListValue(2));
}

TYPED_TEST(PreferencesContract, StagedValueHidesAnotherProgramsChange) {
    this->store_.setValue("key", 1, kDomain);
    this->harness_.otherProgramSets("key", 2);
    EXPECT_EQ(this->store_.value("key", kDomain), PropertyListValue(1));
    EXPECT_TRUE(this->store_.synchronise(kDomain));
    EXPECT_EQ(this->harness_.otherProgramReads("key"), PropertyListValue(1));
}

TYPED_TEST(PreferencesContract, DomainsAreApart) {
    this->store_.setValue("key", 1, kDomain);
    EXPECT_TRUE(this->store_.synchronise(kDomain));
    EXPECT_EQ(this->store_.value("key", kOtherDomain), std::nullopt);
}

TYPED_TEST(PreferencesContract, FailedSynchroniseKeepsWhatWasSet) {
    this->harness_.breakWrites();
    this->store_.setValue("key", 1, kDomain);
    EXPECT_FALSE(this->store_.synchronise(kDomain));
    EXPECT_EQ(this->store_.value("key", kDomain), PropertyListValue(1));
    this->harness_.healWrites();
    EXPECT_TRUE(this->store_.synchronise(kDomain));
    EXPECT_EQ(this->harness_.otherProgramReads("key"), PropertyListValue(1));
}

}  // namespace
}  // namespace quorvix::preferences_contract
