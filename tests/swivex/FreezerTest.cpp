#include "swivex/Freezer.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "tests/support/TemporaryFolder.h"

using namespace quorvix::swivex;

namespace {

class Freezer : public testing::Test {
protected:
    void put(const std::string& path, const std::string& text) const {
        const std::filesystem::path whole = folder.path(path);
        std::filesystem::create_directories(whole.parent_path());
        quorvix::tests::writeWholeFile(whole, text);
    }
    bool frozen() const { return isFrozen(folder.path("proc"), folder.path("cgroup"), 7); }

    quorvix::tests::TemporaryFolder folder;
};

}  // namespace

TEST_F(Freezer, IsThatOfTheOneHierarchy) {
    EXPECT_FALSE(frozen());
    put("proc/7/cgroup", "0::/apps/a:b\n");
    EXPECT_FALSE(frozen());
    put("cgroup/apps/a:b/cgroup.events", "populated 1\nfrozen 0\n");
    EXPECT_FALSE(frozen());
    put("cgroup/apps/a:b/cgroup.events", "populated 1\nfrozen 1\n");
    EXPECT_TRUE(frozen());
}

TEST_F(Freezer, IsThatOfTheHierarchyBesideTheOlderOnes) {
    put("proc/7/cgroup", "4:cpu,cpuacct:/\n0::/x\n");
    put("cgroup/unified/x/cgroup.events", "populated 1\nfrozen 1\n");
    EXPECT_TRUE(frozen());
}

TEST_F(Freezer, IsTheOlderOne) {
    put("proc/7/cgroup", "12:devices:/\n5:freezer:/apps\n0::/\n");
    put("cgroup/freezer/apps/freezer.state", "THAWED\n");
    EXPECT_FALSE(frozen());
    put("cgroup/freezer/apps/freezer.state", "FREEZING\n");
    EXPECT_FALSE(frozen());
    put("cgroup/freezer/apps/freezer.state", "FROZEN\n");
    EXPECT_TRUE(frozen());
}

TEST_F(Freezer, IsNotKnownWhereTheFileMakesNoSense) {
    for (const char* const text : {"", "\n", ":", "0:", "frozen", "0::"}) {
        put("proc/7/cgroup", text);
        EXPECT_FALSE(frozen()) << text;
    }
}
