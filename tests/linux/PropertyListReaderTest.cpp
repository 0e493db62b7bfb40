#include "platform/linux/PropertyListReader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "platform/linux/DeviceCapabilities.h"
#include "platform/sim/SimLog.h"
#include "tests/support/NoDescriptors.h"
#include "tests/support/TemporaryFolder.h"

namespace quorvix::linuxos {
namespace {

using testing::ElementsAre;

class PropertyListReaderTest : public testing::Test {
protected:
    void write(const std::string& content) {
        tests::writeWholeFile(path_, "<plist version=\"1.0\">" + content + "</plist>");
    }

    tests::TemporaryFolder folder_;
    const std::string path_ = folder_.path("list.plist");
    sim::SimLog log_;
    LinuxPropertyListReader reader_{log_};
};

TEST_F(PropertyListReaderTest, ReadsTheFileAtEveryCall) {
    EXPECT_EQ(reader_.readDictionary(path_), std::nullopt);
    write("<dict><key>a</key><integer>1</integer></dict>");
    EXPECT_EQ(reader_.readDictionary(path_), PropertyListDictionary({{"a", 1}}));
    write("<dict><key>a</key><integer>2</integer></dict>");
    EXPECT_EQ(reader_.readDictionary(path_), PropertyListDictionary({{"a", 2}}));
    EXPECT_TRUE(log_.lines().empty());
}

TEST_F(PropertyListReaderTest, WhatIsNoDictionaryReadsAsMissingAndIsSaidOnce) {
    write("<array/>");
    EXPECT_EQ(reader_.readDictionary(path_), std::nullopt);
    write("<dict><key>a</key></dict>");
    EXPECT_EQ(reader_.readDictionary(path_), std::nullopt);
    EXPECT_THAT(log_.texts("platform"), ElementsAre(path_ + ": the property list reads as missing: damaged"));
}

TEST_F(PropertyListReaderTest, SaysItAgainAfterTheFileWasGood) {
    for (int i = 0; i < 2; ++i) {
        write("<array/>");
        EXPECT_EQ(reader_.readDictionary(path_), std::nullopt);
        write("<dict/>");
        EXPECT_NE(reader_.readDictionary(path_), std::nullopt);
    }
    EXPECT_EQ(log_.texts("platform").size(), 2u);
}

TEST_F(PropertyListReaderTest, ProfileStaysInForceWhileNoDescriptorsAreLeft) {
    write("<dict><key>a</key><integer>1</integer></dict>");
    EXPECT_EQ(reader_.readDictionary(path_), PropertyListDictionary({{"a", 1}}));
    write("<dict><key>a</key><integer>2</integer></dict>");
    {
        const tests::NoDescriptors none;
        EXPECT_EQ(reader_.readDictionary(path_), PropertyListDictionary({{"a", 1}}));
        EXPECT_EQ(reader_.readDictionary(folder_.path("other.plist")), std::nullopt);
    }
    EXPECT_EQ(reader_.readDictionary(path_), PropertyListDictionary({{"a", 2}}));
    EXPECT_THAT(log_.texts("platform"),
                ElementsAre(path_ + ": the property list stays as it was last read: Too many open files"));
    std::filesystem::remove(path_);
    const tests::NoDescriptors none;
    EXPECT_EQ(reader_.readDictionary(path_), PropertyListDictionary({{"a", 2}})) << "not known yet to be gone";
}

TEST_F(PropertyListReaderTest, ProfileThatWentIsNotRemembered) {
    write("<dict><key>a</key><integer>1</integer></dict>");
    EXPECT_NE(reader_.readDictionary(path_), std::nullopt);
    std::filesystem::remove(path_);
    EXPECT_EQ(reader_.readDictionary(path_), std::nullopt);
    const tests::NoDescriptors none;
    EXPECT_EQ(reader_.readDictionary(path_), std::nullopt);
}

TEST_F(PropertyListReaderTest, NeverWaitsForAPipe) {
    ASSERT_EQ(mkfifo(path_.c_str(), 0644), 0);
    EXPECT_EQ(reader_.readDictionary(path_), std::nullopt);
    EXPECT_EQ(reader_.readDictionary(folder_.path()), std::nullopt);
}

TEST_F(PropertyListReaderTest, CapabilityIsTrueOnlyWhenTheDeviceSaysSo) {
    LinuxDeviceCapabilities capabilities(log_, path_);
    EXPECT_FALSE(capabilities.booleanAnswer("InternalBuild"));
    write(
        "<dict><key>InternalBuild</key><true/><key>No</key><false/><key>Text</key><string>1</string>"
        "<key>One</key><integer>1</integer></dict>");
    EXPECT_TRUE(capabilities.booleanAnswer("InternalBuild"));
    EXPECT_TRUE(capabilities.booleanAnswer("One"));
    EXPECT_FALSE(capabilities.booleanAnswer("No"));
    EXPECT_FALSE(capabilities.booleanAnswer("Text"));
    EXPECT_FALSE(capabilities.booleanAnswer("Unknown"));
}

}  // namespace
}  // namespace quorvix::linuxos
