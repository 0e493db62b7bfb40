#include "platform/linux/PreferencesStore.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <limits>

#include "platform/linux/Descriptor.h"
#include "platform/linux/PropertyListFile.h"
#include "platform/sim/SimLog.h"
#include "tests/support/NoDescriptors.h"
#include "tests/support/TemporaryFolder.h"

namespace quorvix::linuxos {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using tests::readWholeFile;
using tests::writeWholeFile;

constexpr PreferenceDomain kDomain{"com.norvane.da", "mobile"};

class PreferencesStoreTest : public testing::Test {
protected:
    std::string listPath() const { return folder_.path("com.norvane.da.plist"); }
    std::uint64_t counter(const std::string& name) const {
        const JsonObject counters = store_.selfCounters();
        for (const auto& [key, value] : counters.members()) {
            if (key == name) return std::get<std::uint64_t>(value.content());
        }
        ADD_FAILURE() << name;
        return 0;
    }
    bool set(std::string_view key, PropertyListValue value) {
        store_.setValue(key, std::move(value), kDomain);
        return store_.synchronise(kDomain);
    }
    std::vector<std::string> fileNames() const {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(folder_.path())) {
            names.push_back(entry.path().filename());
        }
        std::sort(names.begin(), names.end());
        return names;
    }
    // Longer than a file counts as just changed.
    void letSettle() {
        const timespec pause{0, 60'000'000};
        nanosleep(&pause, nullptr);
    }

    tests::TemporaryFolder folder_;
    sim::SimLog log_;
    LinuxPreferencesStore store_{log_, folder_.path()};
};

// Runs `work` in a child process, which ends with its answer.
template <class Work>
pid_t inChild(Work work) {
    const pid_t child = fork();
    if (child == 0) _exit(work());
    return child;
}

int statusOf(pid_t child) {
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return status;
}

TEST_F(PreferencesStoreTest, WritesAListThatAnyoneCanRead) {
    ASSERT_TRUE(set("QuorvixEnabled", true));
    EXPECT_EQ(readWholeFile(listPath()),
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n"
              "\t<key>QuorvixEnabled</key>\n\t<true/>\n</dict>\n</plist>\n");
    struct stat status {};
    ASSERT_EQ(stat(listPath().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0644u);
    EXPECT_THAT(fileNames(), ElementsAre(".com.norvane.da.lock", "com.norvane.da.plist"));
}

TEST_F(PreferencesStoreTest, LockIsOutOfReachOfOthers) {
    ASSERT_TRUE(set("key", 1));
    struct stat status {};
    ASSERT_EQ(stat(folder_.path(".com.norvane.da.lock").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600u);
}

TEST_F(PreferencesStoreTest, KeepsTheModeOfTheList) {
    ASSERT_TRUE(set("key", 1));
    ASSERT_EQ(chmod(listPath().c_str(), 0640), 0);
    ASSERT_TRUE(set("key", 2));
    struct stat status {};
    ASSERT_EQ(stat(listPath().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640u);
}

TEST_F(PreferencesStoreTest, MakesTheMissingFolderWhenItWrites) {
    const std::string path = folder_.path("a/b/c");
    LinuxPreferencesStore store(log_, path);
    EXPECT_EQ(store.value("key", kDomain), std::nullopt);
    EXPECT_FALSE(std::filesystem::exists(folder_.path("a")));
    store.setValue("key", 1, kDomain);
    EXPECT_TRUE(store.synchronise(kDomain));
    struct stat status {};
    ASSERT_EQ(stat(folder_.path("a/b").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0755u);
    EXPECT_TRUE(log_.lines().empty());
}

TEST_F(PreferencesStoreTest, ReadsTheFileAgainOnlyWhenItChanged) {
    ASSERT_TRUE(set("key", 1));
    letSettle();
    for (int i = 0; i < 10; ++i) EXPECT_EQ(store_.value("key", kDomain), PropertyListValue(1));
    EXPECT_EQ(counter("fileReads"), 1u);
    writeWholeFile(listPath(), "<plist><dict><key>key</key><integer>2</integer></dict></plist>");
    EXPECT_EQ(store_.value("key", kDomain), PropertyListValue(2));
    EXPECT_EQ(counter("fileReads"), 2u);
    std::filesystem::remove(listPath());
    EXPECT_EQ(store_.value("key", kDomain), std::nullopt);
}

TEST_F(PreferencesStoreTest, ChangesWithinOneClockStepAreSeen) {
    for (int value = 0; value < 200; ++value) {
        writeWholeFile(listPath(), "<plist><dict><key>key</key><integer>" + std::to_string(1000 + value) +
                                       "</integer></dict></plist>");
        ASSERT_EQ(store_.value("key", kDomain), PropertyListValue(1000 + value));
    }
}

TEST_F(PreferencesStoreTest, WritingWhatIsAlreadyThereLeavesTheFileAlone) {
    ASSERT_TRUE(set("key", 1));
    struct stat before {};
    struct stat after {};
    ASSERT_EQ(stat(listPath().c_str(), &before), 0);
    ASSERT_TRUE(set("key", 1));
    ASSERT_EQ(stat(listPath().c_str(), &after), 0);
    EXPECT_EQ(before.st_ino, after.st_ino);
}

TEST_F(PreferencesStoreTest, DamagedListReadsAsMissingAndIsSaidOnce) {
    for (const char* text : {"", "<plist><dict><key>key</key>", "<plist><array/></plist>", "key = 1;"}) {
        writeWholeFile(listPath(), text);
        EXPECT_EQ(store_.value("key", kDomain), std::nullopt) << text;
    }
    EXPECT_THAT(log_.texts("platform"),
                ElementsAre("preferences of com.norvane.da read as missing: it is damaged or too long"));
    EXPECT_EQ(counter("readFailures"), 4u);
    EXPECT_TRUE(log_.texts("").empty());
}

TEST_F(PreferencesStoreTest, NothingIsSwitchedOffWhileNoDescriptorsAreLeft) {
    ASSERT_TRUE(set("key", 1));
    EXPECT_EQ(store_.value("key", kDomain), PropertyListValue(1));
    LinuxPreferencesStore other(log_, folder_.path());
    other.setValue("key", 2, kDomain);
    ASSERT_TRUE(other.synchronise(kDomain));
    {
        const tests::NoDescriptors none;
        EXPECT_EQ(store_.value("key", kDomain), PropertyListValue(1));
        EXPECT_EQ(store_.value("key", kDomain), PropertyListValue(1));
        EXPECT_FALSE(store_.list(kDomain)) << "whoever asks for the list as it is now is told that there is none";
    }
    EXPECT_EQ(store_.value("key", kDomain), PropertyListValue(2));
    EXPECT_THAT(log_.texts("platform"),
                ElementsAre("preferences of com.norvane.da stay as they were last read: Too many open files"));
    std::filesystem::remove(listPath());
    EXPECT_EQ(store_.value("key", kDomain), std::nullopt);
}

TEST_F(PreferencesStoreTest, DamagedListIsMovedAsideBeforeTheFirstWrite) {
    writeWholeFile(listPath(), "first damage");
    ASSERT_TRUE(set("key", 1));
    EXPECT_EQ(readWholeFile(listPath() + ".damaged-1"), "first damage");
    writeWholeFile(listPath(), "second damage");
    ASSERT_TRUE(set("key", 2));
    EXPECT_EQ(readWholeFile(listPath() + ".damaged-1"), "first damage");
    EXPECT_EQ(readWholeFile(listPath() + ".damaged-2"), "second damage");
    EXPECT_EQ(store_.value("key", kDomain), PropertyListValue(2));
    EXPECT_EQ(counter("damagedMovedAside"), 2u);
}

TEST_F(PreferencesStoreTest, AtMostNineDamagedListsAreKept) {
    for (int number = 1; number <= 11; ++number) {
        writeWholeFile(listPath(), "damage " + std::to_string(number));
        ASSERT_TRUE(set("key", number));
    }
    EXPECT_EQ(readWholeFile(listPath() + ".damaged-1"), "damage 1");
    EXPECT_EQ(readWholeFile(listPath() + ".damaged-8"), "damage 8");
    EXPECT_EQ(readWholeFile(listPath() + ".damaged-9"), "damage 11");
    EXPECT_FALSE(std::filesystem::exists(listPath() + ".damaged-10"));
}

TEST_F(PreferencesStoreTest, TooLongAListIsDamaged) {
    writeWholeFile(listPath(), std::string(kPropertyListMaxBytes + 1, ' '));
    EXPECT_EQ(store_.list(kDomain).error().value, EFBIG);
    ASSERT_TRUE(set("key", 1));
    EXPECT_EQ(std::filesystem::file_size(listPath() + ".damaged-1"), kPropertyListMaxBytes + 1);
}

TEST_F(PreferencesStoreTest, ListThatWouldGetTooLongIsNotWritten) {
    ASSERT_TRUE(set("key", 1));
    EXPECT_FALSE(set("long", std::string(kPropertyListMaxBytes, 'x')));
    store_.setValue("long", std::nullopt, kDomain);
    EXPECT_TRUE(store_.synchronise(kDomain));
    EXPECT_EQ(store_.value("key", kDomain), PropertyListValue(1));
    EXPECT_THAT(log_.texts("platform"), ElementsAre("preferences of com.norvane.da not written: File too large"));
}

TEST_F(PreferencesStoreTest, PipeOrFolderInTheListsPlaceIsNotReadNorReplaced) {
    ASSERT_EQ(mkfifo(listPath().c_str(), 0644), 0);
    EXPECT_EQ(store_.value("key", kDomain), std::nullopt);
    EXPECT_FALSE(set("key", 1));
    EXPECT_FALSE(store_.synchronise(kDomain));
    EXPECT_TRUE(std::filesystem::is_fifo(listPath()));
    EXPECT_EQ(counter("writeFailures"), 2u);
    EXPECT_THAT(log_.texts("platform"), ElementsAre("preferences of com.norvane.da read as missing: Is a directory",
                                                    "preferences of com.norvane.da not written: Is a directory"));
}

TEST_F(PreferencesStoreTest, DomainNeverLeadsOutOfTheFolder) {
    for (const char* name : {"", "../x", "a/b", ".hidden", ".."}) {
        const PreferenceDomain domain{name, "mobile"};
        store_.setValue("key", 1, domain);
        EXPECT_FALSE(store_.synchronise(domain)) << name;
    }
    const std::string longest(255 - std::string(".plist.damaged-9").size(), 'x');
    store_.setValue("key", 1, {longest, "mobile"});
    EXPECT_TRUE(store_.synchronise({longest, "mobile"}));
    store_.setValue("key", 1, {longest + "x", "mobile"});
    EXPECT_EQ(store_.write({longest + "x", "mobile"}).error().value, ENAMETOOLONG);
}

TEST_F(PreferencesStoreTest, LeftoverOfAKilledWriterIsReplaced) {
    writeWholeFile(folder_.path(".com.norvane.da.plist.tmp"), "half a li");
    ASSERT_TRUE(set("key", 1));
    EXPECT_THAT(fileNames(), ElementsAre(".com.norvane.da.lock", "com.norvane.da.plist"));
}

TEST_F(PreferencesStoreTest, LockThatIsNeverGivenBackIsATimeout) {
    ASSERT_TRUE(set("key", 1));
    const Descriptor held(open(folder_.path(".com.norvane.da.lock").c_str(), O_RDWR | O_CLOEXEC));
    ASSERT_EQ(flock(held.get(), LOCK_EX), 0);
    EXPECT_FALSE(set("key", 2));
    EXPECT_THAT(log_.texts("platform"), ElementsAre("preferences of com.norvane.da not written: Connection timed out"));
    ASSERT_EQ(flock(held.get(), LOCK_UN), 0);
    EXPECT_TRUE(store_.synchronise(kDomain));
}

TEST_F(PreferencesStoreTest, WritersAtTheSameTimeLoseNothing) {
    constexpr int kWriters = 4;
    constexpr int kKeys = 25;
    std::vector<pid_t> children;
    for (int writer = 0; writer < kWriters; ++writer) {
        children.push_back(inChild([&] {
            for (int key = 0; key < kKeys; ++key) {
                if (!set(std::to_string(writer) + "-" + std::to_string(key), key)) return 1;
            }
            return 0;
        }));
    }
    for (const pid_t child : children) EXPECT_EQ(statusOf(child), 0);
    const Result<PropertyListDictionary> list = store_.list(kDomain);
    ASSERT_TRUE(list);
    EXPECT_EQ(list->size(), static_cast<std::size_t>(kWriters * kKeys));
}

TEST_F(PreferencesStoreTest, KilledWriterLeavesAWholeList) {
    ASSERT_TRUE(set("first", 0));
    ASSERT_TRUE(set("second", 0));
    for (int round = 0; round < 30; ++round) {
        const pid_t child = inChild([&] {
            for (int value = 1;; ++value) {
                store_.setValue("first", value, kDomain);
                store_.setValue("second", value, kDomain);
                if (!store_.synchronise(kDomain)) return 1;
            }
        });
        const timespec pause{0, 1'000'000 + round * 317'000};
        nanosleep(&pause, nullptr);
        ASSERT_EQ(kill(child, SIGKILL), 0);
        ASSERT_TRUE(WIFSIGNALED(statusOf(child)));
        const Result<PropertyListDictionary> list = store_.list(kDomain);
        ASSERT_TRUE(list) << readWholeFile(listPath());
        EXPECT_EQ(list->at("first"), list->at("second"));
    }
    // The lock died with its holder.
    EXPECT_TRUE(set("first", -1));
}

// Runs `work` with a small file system of its own mounted on `path`; only root can.
template <class Work>
void onOwnFileSystem(const std::string& path, Work work) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to mount";
    const pid_t child = inChild([&] {
        if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return 90;
        if (mount("tmpfs", path.c_str(), "tmpfs", 0, "size=64k") != 0) return 91;
        return work();
    });
    const int status = statusOf(child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST_F(PreferencesStoreTest, ReadOnlyFolderReadsAndIsNotWritten) {
    onOwnFileSystem(folder_.path(), [this] {
        if (!set("key", 1)) return 1;
        if (mount(nullptr, folder_.path().c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr) != 0) return 2;
        if (store_.value("key", kDomain) != PropertyListValue(1)) return 3;
        store_.setValue("key", 2, kDomain);
        const Result<void> written = store_.write(kDomain);
        if (written || written.error().value != EROFS) return 4;
        if (store_.value("key", kDomain) != PropertyListValue(2)) return 5;
        return 0;
    });
}

TEST_F(PreferencesStoreTest, FullDiskLeavesTheOldListAndNoLeftover) {
    onOwnFileSystem(folder_.path(), [this] {
        if (!set("key", 1)) return 1;
        const std::string before = readWholeFile(listPath());
        store_.setValue("long", std::string(100'000, 'x'), kDomain);
        const Result<void> written = store_.write(kDomain);
        if (written || written.error().value != ENOSPC) return 2;
        if (readWholeFile(listPath()) != before) return 3;
        return fileNames().size() == 2 ? 0 : 4;
    });
}

}  // namespace
}  // namespace quorvix::linuxos
