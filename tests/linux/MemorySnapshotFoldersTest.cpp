#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "memsnapshot/MemoryReportText.h"
#include "memsnapshot/MemorySnapshot.h"
#include "platform/linux/Files.h"
#include "platform/sim/SimPlatform.h"
#include "service/ServiceState.h"
#include "tests/support/PrivateMounts.h"
#include "tests/support/TemporaryFolder.h"

namespace quorvix::linuxos {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const std::string kCache = "/var/root/Library/Caches/quorvixd";
const std::string kReports = "/Library/Logs/Faultbox";
const std::string kTime = "2026-01-15-120000";
const std::string kName = "memory-snapshot-" + kTime + ".ips";

std::vector<std::string> names(const std::string& folder) {
    std::vector<std::string> found;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) found.push_back(entry.path().filename());
    std::ranges::sort(found);
    return found;
}

// A simulated device of a thousand processes with real files; its report has some 80 KB.
struct World {
    World() {
        for (int pid = 1; pid <= 1000; ++pid) {
            device.processMemory.processes.push_back({.pid = pid, .path = "/bin/an-app", .footprintBytes = 4096});
        }
        setPlatform(&services);
        resetServiceState();
        serviceState().reportDateFormatter = std::make_unique<FixedTime>();
    }
    struct FixedTime final : DateFormatter {
        std::string format(WallTime) override { return kTime; }
    };
    std::vector<std::string> snapshot() {
        device.log.clear();
        takeMemorySnapshot();
        std::vector<std::string> texts = device.log.texts("platform");
        std::ranges::copy(device.log.texts(), std::back_inserter(texts));
        return texts;
    }

    sim::SimPlatform device;
    LinuxFiles files;
    Platform services{.tickClock = device.tickClock,
                      .wallClock = device.wallClock,
                      .queues = device.queues,
                      .messages = device.messages,
                      .regions = device.regions,
                      .notifications = device.notifications,
                      .preferences = device.preferences,
                      .propertyLists = device.propertyLists,
                      .capabilities = device.capabilities,
                      .log = device.log,
                      .counters = device.counters,
                      .processes = device.processes,
                      .host = device.host,
                      .files = files,
                      .libraries = device.libraries,
                      .json = device.json,
                      .random = device.random,
                      .renderServer = device.renderServer,
                      .lifecycle = device.lifecycle,
                      .state = device.state,
                      .powerLog = device.powerLog,
                      .signposts = device.signposts,
                      .console = device.console,
                      .systemInformation = device.systemInformation,
                      .processMemory = device.processMemory,
                      .kernelMemory = device.kernelMemory};
};

std::string moveFailed(const std::string& why) {
    return "Could not move memory snapshot to " + kReports + "//" + kName + ": " + why;
}
std::string writeFailed(const std::string& why) {
    return "Could not write memory snapshot " + kCache + "//" + kName + ": " + why;
}
std::string createFailed(const std::string& why) {
    return "Could not create file - won't take a memory snapshot: " + kCache + "//" + kName + " " + why;
}
std::string written(std::size_t size) {
    return "Memory snapshot written: " + kReports + "//" + kName + " (" + std::to_string(size) + " bytes)";
}

void expectTheWholeReport() {
    EXPECT_THAT(names(kCache), IsEmpty());
    EXPECT_THAT(names(kReports), ElementsAre(kName));
    EXPECT_EQ(tests::readWholeFile(kReports + "/" + kName), memoryReportText(kTime));
}
void expectNothingLeft() {
    EXPECT_THAT(names(kCache), IsEmpty());
    EXPECT_THAT(names(kReports), IsEmpty());
}

void mountMemory(const std::string& place, const char* options) {
    ASSERT_EQ(mount("tmpfs", place.c_str(), "tmpfs", 0, options), 0);
}
void makeReadOnly(const std::string& place) {
    ASSERT_EQ(mount(nullptr, place.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
}

// Each body runs in a child whose root is an empty file system of its own: nothing of the machine's folders is touched.
class MemorySnapshotFolders : public testing::Test {
protected:
    void inOwnRoot(const std::function<void(World&)>& body) {
        const int outcome = tests::runInPrivateMounts([&] {
            const char* const root = folder_.path().c_str();
            if (mount("tmpfs", root, "tmpfs", 0, nullptr) != 0 || chroot(root) != 0 || chdir("/") != 0) {
                return tests::kCannotUnshare;
            }
            umask(022);
            std::filesystem::create_directories(kCache);
            std::filesystem::create_directories(kReports);
            World world;
            body(world);
            std::fflush(stdout);
            return HasFailure() ? 1 : 0;
        });
        if (outcome == tests::kCannotUnshare) GTEST_SKIP() << "needs root and mount namespaces";
        EXPECT_EQ(outcome, 0) << "see above";
    }

private:
    const tests::TemporaryFolder folder_;
};

TEST_F(MemorySnapshotFolders, OnOneFileSystemTheReportIsMoved) {
    inOwnRoot([](World& world) {
        EXPECT_THAT(world.snapshot(), ElementsAre(written(memoryReportText(kTime).size())));
        expectTheWholeReport();
    });
}

TEST_F(MemorySnapshotFolders, BetweenFileSystemsTheReportIsCopiedWhole) {
    inOwnRoot([](World& world) {
        mountMemory(kCache, "mode=0755");
        mountMemory(kReports, "mode=0755");
        EXPECT_THAT(world.snapshot(), ElementsAre(written(memoryReportText(kTime).size())));
        expectTheWholeReport();
        struct stat status {};
        ASSERT_EQ(stat((kReports + "/" + kName).c_str(), &status), 0);
        EXPECT_EQ(status.st_mode, S_IFREG | 0644u);
    });
}

TEST_F(MemorySnapshotFolders, AFullReportFolderKeepsNoPartOfIt) {
    inOwnRoot([](World& world) {
        mountMemory(kReports, "size=64k");
        EXPECT_THAT(world.snapshot(), ElementsAre(moveFailed("No space left on device")));
        expectNothingLeft();
    });
}

TEST_F(MemorySnapshotFolders, AFullCacheFolderKeepsNoPartOfIt) {
    inOwnRoot([](World& world) {
        mountMemory(kCache, "size=64k");
        EXPECT_THAT(world.snapshot(), ElementsAre(writeFailed("No space left on device")));
        expectNothingLeft();
    });
}

TEST_F(MemorySnapshotFolders, WithoutRoomForAnotherFileThereIsNoSnapshot) {
    inOwnRoot([](World& world) {
        mountMemory(kCache, "nr_inodes=1");
        EXPECT_THAT(world.snapshot(), ElementsAre(createFailed("No space left on device")));
        expectNothingLeft();
    });
}

TEST_F(MemorySnapshotFolders, AFolderThatCannotBeWrittenToIsTold) {
    inOwnRoot([](World& world) {
        mountMemory(kReports, "");
        makeReadOnly(kReports);
        EXPECT_THAT(world.snapshot(), ElementsAre(moveFailed("Read-only file system")));
        expectNothingLeft();
        mountMemory(kCache, "");
        makeReadOnly(kCache);
        EXPECT_THAT(world.snapshot(), ElementsAre(createFailed("Read-only file system")));
        expectNothingLeft();
    });
}

TEST_F(MemorySnapshotFolders, AMissingReportFolderIsTold) {
    inOwnRoot([](World& world) {
        std::filesystem::remove(kReports);
        EXPECT_THAT(world.snapshot(), ElementsAre(moveFailed("No such file or directory")));
        EXPECT_THAT(names(kCache), IsEmpty());
    });
}

// Links where the file, its copy and the report are made; none of them is followed.
TEST_F(MemorySnapshotFolders, PlantedLinksAreReplacedAndTheirTargetsUntouched) {
    for (const bool apart : {false, true}) {
        inOwnRoot([apart](World& world) {
            if (apart) mountMemory(kReports, "");
            tests::writeWholeFile("/victim", "untouched");
            for (const std::string& name : {kCache + "/" + kName, kReports + "/" + kName, kReports + "/." + kName}) {
                if (apart || name != kReports + "/." + kName) std::filesystem::create_symlink("/victim", name);
            }
            EXPECT_THAT(world.snapshot(), ElementsAre(written(memoryReportText(kTime).size())));
            expectTheWholeReport();
            EXPECT_FALSE(std::filesystem::is_symlink(kReports + "/" + kName));
            EXPECT_EQ(tests::readWholeFile("/victim"), "untouched");
        });
    }
}

TEST_F(MemorySnapshotFolders, PipesInTheWayAreReplaced) {
    inOwnRoot([](World& world) {
        mountMemory(kReports, "");
        for (const std::string& name : {kCache + "/" + kName, kReports + "/" + kName, kReports + "/." + kName}) {
            ASSERT_EQ(mkfifo(name.c_str(), 0600), 0);
        }
        EXPECT_THAT(world.snapshot(), ElementsAre(written(memoryReportText(kTime).size())));
        expectTheWholeReport();
    });
}

TEST_F(MemorySnapshotFolders, AFolderInTheReportsPlaceStays) {
    inOwnRoot([](World& world) {
        std::filesystem::create_directories(kReports + "/" + kName);
        EXPECT_THAT(world.snapshot(), ElementsAre(moveFailed("Is a directory")));
        EXPECT_THAT(names(kCache), IsEmpty());
        std::filesystem::create_directories(kCache + "/" + kName);
        EXPECT_THAT(world.snapshot(), ElementsAre(createFailed("Is a directory")));
    });
}

TEST_F(MemorySnapshotFolders, NoDescriptorStaysOpen) {
    inOwnRoot([](World& world) {
        const int before = dup(0);
        close(before);
        (void)world.snapshot();
        mountMemory(kReports, "size=64k");
        (void)world.snapshot();
        const int after = dup(0);
        close(after);
        EXPECT_EQ(after, before);
    });
}

}  // namespace
}  // namespace quorvix::linuxos
