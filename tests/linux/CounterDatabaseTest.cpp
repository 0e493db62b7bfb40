#include "platform/linux/CounterDatabase.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <string>

#include "platform/linux/Sqlite.h"
#include "tests/support/FailingRead.h"
#include "tests/support/PrivateMounts.h"
#include "tests/support/TemporaryFolder.h"

namespace quorvix::linuxos {
namespace {

using std::chrono::hours;
using std::chrono::seconds;

constexpr WallTime kStart{seconds(1700000000)};

class CounterDatabaseTest : public testing::Test {
protected:
    CounterDatabase::Failure write(const CounterBatch& batch, WallTime now = kStart) {
        return database_.write(batch, now, refusals_);
    }
    // Adds 1 to a scalar.
    CounterDatabase::Failure touch(std::string_view key, WallTime now = kStart) {
        CounterBatch batch;
        EXPECT_EQ(batch.add(key, 1), std::nullopt);
        return write(batch, now);
    }
    std::map<std::string, std::int64_t> stored() {
        std::map<std::string, std::int64_t> scalars;
        EXPECT_EQ(database_.readScalars([&](std::string_view key, std::int64_t value) { scalars.emplace(key, value); }),
                  std::nullopt);
        return scalars;
    }
    std::string path(const std::string& suffix = "") const { return folder_.path("tallisk.db" + suffix); }
    static std::string keyOf(std::size_t index) { return "com.norvane.quorvix.hang.app" + std::to_string(index); }

    tests::TemporaryFolder folder_;
    CounterDatabase database_{folder_.path()};
    CounterRefusals refusals_;
};

TEST_F(CounterDatabaseTest, OnlyRootReadsItsFiles) {
    EXPECT_EQ(touch("a"), std::nullopt);
    for (const char* suffix : {"", "-wal", "-shm"}) {
        struct stat status {};
        ASSERT_EQ(stat(path(suffix).c_str(), &status), 0) << suffix;
        EXPECT_EQ(status.st_mode & 0777, 0600u) << suffix;
    }
}

TEST_F(CounterDatabaseTest, StoresOneKeyLessThanTooMany) {
    CounterBatch first;
    for (std::size_t index = 0; index < kMaximumChosenKeys - 1; ++index) {
        EXPECT_EQ(first.add(keyOf(index), 1), std::nullopt);
    }
    EXPECT_EQ(write(first), std::nullopt);
    EXPECT_EQ(touch(keyOf(5000)), std::nullopt);
    EXPECT_EQ(refusals_.of(CounterRefusal::tableFull), 0u);
    EXPECT_EQ(touch(keyOf(5001)), std::nullopt);
    EXPECT_EQ(refusals_.of(CounterRefusal::tableFull), 1u);
    for (const std::string_view fixed : kFixedCounterKeys) EXPECT_EQ(touch(fixed), std::nullopt);
    EXPECT_EQ(touch(keyOf(0)), std::nullopt);
    EXPECT_EQ(refusals_.of(CounterRefusal::tableFull), 1u);
    EXPECT_EQ(stored().size(), kMaximumCounterKeys);
    EXPECT_EQ(stored().at(keyOf(0)), 2);
}

TEST_F(CounterDatabaseTest, AProcessStoresSixtyFourKeysOfBothKinds) {
    for (std::size_t index = 0; index < kMaximumKeysOfProcess; ++index) {
        CounterBatch batch;
        const std::string key = "com.norvane.quorvix.kind" + std::to_string(index) + ".app";
        EXPECT_EQ(index % 2 ? batch.push(key, "app", 1) : batch.add(key, 1), std::nullopt);
        EXPECT_EQ(write(batch), std::nullopt);
    }
    EXPECT_EQ(refusals_.of(CounterRefusal::processFull), 0u);
    EXPECT_EQ(touch("com.norvane.quorvix.more.app"), std::nullopt);
    EXPECT_EQ(refusals_.of(CounterRefusal::processFull), 1u);
    EXPECT_EQ(touch("com.norvane.quorvix.more.other"), std::nullopt);
    EXPECT_EQ(refusals_.of(CounterRefusal::processFull), 1u);
}

TEST_F(CounterDatabaseTest, DropsKeysUnusedForThirtyDays) {
    EXPECT_EQ(touch("unused"), std::nullopt);
    EXPECT_EQ(touch("used"), std::nullopt);
    EXPECT_EQ(touch("used", kStart + hours(24) * 20), std::nullopt);
    EXPECT_EQ(touch("third", kStart + hours(24) * 30), std::nullopt);
    EXPECT_TRUE(stored().contains("unused"));
    EXPECT_EQ(touch("third", kStart + hours(24) * 31), std::nullopt);
    EXPECT_FALSE(stored().contains("unused"));
    EXPECT_EQ(stored().at("used"), 2);
}

TEST_F(CounterDatabaseTest, AClockThatStepsBackDropsNothing) {
    EXPECT_EQ(touch("kept"), std::nullopt);
    EXPECT_EQ(touch("other", WallTime{seconds(0)}), std::nullopt);
    EXPECT_EQ(stored().size(), 2u);
}

TEST_F(CounterDatabaseTest, MovesADamagedFileAside) {
    tests::writeWholeFile(path(), std::string(8192, 'x'));
    EXPECT_EQ(touch("a"), std::nullopt);
    EXPECT_EQ(stored().at("a"), 1);
    EXPECT_EQ(tests::readWholeFile(path(".damaged")), std::string(8192, 'x'));
    EXPECT_EQ(database_.movedAside(), 1u);
}

TEST_F(CounterDatabaseTest, NoticesDamageInTheMiddleOfAFile) {
    CounterBatch batch;
    for (std::size_t index = 0; index < 2000; ++index) EXPECT_EQ(batch.add(keyOf(index), 1), std::nullopt);
    {
        CounterDatabase writer(folder_.path());
        EXPECT_EQ(writer.write(batch, kStart, refusals_), std::nullopt);
    }
    SqliteDatabase(path()).execute("PRAGMA wal_checkpoint(TRUNCATE)");
    std::string content = tests::readWholeFile(path());
    ASSERT_GT(content.size(), 16384u);
    for (std::size_t at = 8192; at < content.size(); ++at) content[at] = '\x5a';
    tests::writeWholeFile(path(), content);
    EXPECT_EQ(touch("a"), std::nullopt);
    EXPECT_EQ(stored().size(), 1u);
    EXPECT_TRUE(std::filesystem::exists(path(".damaged")));
}

TEST_F(CounterDatabaseTest, MovesAFileOfALaterVersionAside) {
    EXPECT_EQ(touch("old"), std::nullopt);
    SqliteDatabase(path()).execute("PRAGMA user_version = 2");
    CounterDatabase later(folder_.path());
    CounterBatch batch;
    EXPECT_EQ(batch.add("new", 1), std::nullopt);
    EXPECT_EQ(later.write(batch, kStart, refusals_), std::nullopt);
    EXPECT_TRUE(std::filesystem::exists(path(".newer")));
    EXPECT_EQ(SqliteDatabase(path()).number("SELECT count(*) FROM scalar"), 1);
}

TEST_F(CounterDatabaseTest, BeginsANewFileWhenItsOwnIsTakenAway) {
    EXPECT_EQ(touch("a"), std::nullopt);
    for (const char* suffix : {"", "-wal", "-shm"}) unlink(path(suffix).c_str());
    EXPECT_EQ(touch("b"), std::nullopt);
    EXPECT_EQ(stored(), (std::map<std::string, std::int64_t>{{"b", 1}}));
}

// Each read of the opening, the check and the write fails once, of what is in the journal and of what is in the file.
TEST_F(CounterDatabaseTest, OneFailedReadMovesNothingAsideAndLosesNoCounter) {
    CounterBatch many;
    for (std::size_t index = 0; index < 300; ++index) EXPECT_EQ(many.add(keyOf(index), 1), std::nullopt);
    EXPECT_EQ(write(many), std::nullopt);
    std::int64_t told = 0;
    for (const bool inJournal : {true, false}) {
        if (!inJournal) SqliteDatabase(path()).execute("PRAGMA wal_checkpoint(TRUNCATE)");
        for (int number = 1;; ++number) {
            ASSERT_LT(number, 1000);
            CounterDatabase database(folder_.path());
            CounterBatch one;
            EXPECT_EQ(one.add("told", 1), std::nullopt);
            const tests::FailingRead failing(number);
            if (!database.write(one, kStart, refusals_)) ++told;
            ASSERT_EQ(database.movedAside(), 0u) << "at read " << number;
            if (!tests::FailingRead::struck()) {
                EXPECT_GT(number, 10) << "there were no reads to fail";
                break;
            }
        }
    }
    EXPECT_EQ(stored().at(keyOf(299)), 1);
    EXPECT_EQ(stored().at("told"), told);
    EXPECT_FALSE(std::filesystem::exists(path(".damaged")));
}

TEST_F(CounterDatabaseTest, FailsWithoutAFolderAndWorksOnceItIsThere) {
    CounterDatabase database(folder_.path("later"));
    CounterBatch batch;
    EXPECT_EQ(batch.add("a", 1), std::nullopt);
    EXPECT_NE(database.write(batch, kStart, refusals_), std::nullopt);
    std::filesystem::create_directory(folder_.path("later"));
    EXPECT_EQ(database.write(batch, kStart, refusals_), std::nullopt);
}

TEST_F(CounterDatabaseTest, NeverFollowsALinkInItsPlace) {
    tests::writeWholeFile(folder_.path("victim"), "");
    std::filesystem::create_symlink(folder_.path("victim"), path());
    EXPECT_NE(touch("a"), std::nullopt);
    EXPECT_EQ(tests::readWholeFile(folder_.path("victim")), "");
}

TEST_F(CounterDatabaseTest, AReaderIsNotInTheWayAndSeesOneState) {
    EXPECT_EQ(touch("a"), std::nullopt);
    SqliteDatabase reader(path());
    reader.execute("BEGIN");
    EXPECT_EQ(reader.number("SELECT value FROM scalar WHERE key = 'a'"), 1);
    EXPECT_EQ(touch("a"), std::nullopt);
    EXPECT_EQ(reader.number("SELECT value FROM scalar WHERE key = 'a'"), 1);
    reader.execute("COMMIT");
    EXPECT_EQ(reader.number("SELECT value FROM scalar WHERE key = 'a'"), 2);
}

TEST_F(CounterDatabaseTest, ALockedFileFailsAndNothingIsHalfStored) {
    EXPECT_EQ(touch("a"), std::nullopt);
    SqliteDatabase other(path());
    other.execute("BEGIN IMMEDIATE");
    EXPECT_NE(touch("a"), std::nullopt);
    other.execute("ROLLBACK");
    EXPECT_EQ(touch("a"), std::nullopt);
    EXPECT_EQ(stored().at("a"), 2);
}

// The child adds 1 to two keys a transaction and says so once each is stored, until it is killed in the middle.
TEST_F(CounterDatabaseTest, AKilledWriterLosesNothingItCommittedAndNothingIsHalf) {
    std::int64_t told = 0;
    for (int round = 0; round < 5; ++round) {
        int pipe[2];
        ASSERT_EQ(::pipe(pipe), 0);
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            CounterDatabase writer(folder_.path());
            CounterRefusals refusals;
            CounterBatch batch;
            if (batch.add("one", 1) || batch.add("two", 1)) _exit(1);
            while (!writer.write(batch, kStart, refusals) && ::write(pipe[1], "+", 1) == 1) {
            }
            _exit(1);
        }
        close(pipe[1]);
        char byte = 0;
        for (int count = 0; count < 20 + 7 * round && read(pipe[0], &byte, 1) == 1; ++count) ++told;
        kill(child, SIGKILL);
        while (read(pipe[0], &byte, 1) == 1) ++told;
        close(pipe[0]);
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFSIGNALED(status));
        const auto scalars = stored();
        EXPECT_EQ(scalars.at("one"), scalars.at("two"));
        EXPECT_GE(scalars.at("one"), told);
        EXPECT_LE(scalars.at("one"), told + 1);
        told = scalars.at("one");
    }
    EXPECT_EQ(database_.movedAside(), 0u);
}

// In a tmpfs of 512 KiB: 0 as expected, else the number of what went wrong.
int fillTheDisk(const std::string& folder) {
    if (mount("tmpfs", folder.c_str(), "tmpfs", 0, "size=512k") != 0) return tests::kCannotUnshare;
    CounterDatabase database(folder);
    CounterRefusals refusals;
    CounterBatch small;
    if (small.add("a", 1)) return 1;
    if (database.write(small, kStart, refusals)) return 2;
    tests::writeWholeFile(folder + "/ballast", std::string(1 << 20, 'b'));
    CounterBatch large;
    for (int index = 0; index < 4000; ++index) {
        if (large.add(std::string(200, 'k') + "." + std::to_string(index), 1)) return 3;
    }
    if (!database.write(large, kStart, refusals)) return 4;
    std::filesystem::remove(folder + "/ballast");
    std::int64_t value = 0;
    std::size_t keys = 0;
    const auto see = [&](std::string_view, std::int64_t stored) { value = stored, ++keys; };
    if (database.readScalars(see)) return 5;
    if (keys != 1 || value != 1) return 6;
    return database.write(small, kStart, refusals) || database.movedAside() != 0 ? 7 : 0;
}

// What a killed daemon left, found by the next one on a full disk, where SQLite can't make the journal's index. 0 as
// expected, else the number of what went wrong.
int openOnAFullDisk(const std::string& folder) {
    if (mount("tmpfs", folder.c_str(), "tmpfs", 0, "size=512k") != 0) return tests::kCannotUnshare;
    CounterRefusals refusals;
    CounterBatch batch;
    if (batch.add("a", 1)) return 1;
    const std::string path = folder + "/tallisk.db";
    {
        CounterDatabase killed(folder);
        if (killed.write(batch, kStart, refusals)) return 2;
        for (const char* suffix : {"", "-wal"}) {
            std::filesystem::copy(path + suffix, folder + "/kept" + suffix);
        }
    }
    for (const char* suffix : {"", "-wal", "-shm"}) std::filesystem::remove(path + suffix);
    for (const char* suffix : {"", "-wal"}) std::filesystem::rename(folder + "/kept" + suffix, path + suffix);
    tests::writeWholeFile(folder + "/ballast", std::string(1 << 20, 'b'));
    CounterDatabase next(folder);
    if (!next.write(batch, kStart, refusals)) return 3;
    std::filesystem::remove(folder + "/ballast");
    std::int64_t value = 0;
    if (next.readScalars([&](std::string_view, std::int64_t stored) { value = stored; })) return 4;
    return value != 1 || next.movedAside() != 0 ? 5 : 0;
}

TEST_F(CounterDatabaseTest, WhatWasCommittedIsStillThereAfterAStartOnAFullDisk) {
    const int outcome = tests::runInPrivateMounts([&] { return openOnAFullDisk(folder_.path()); });
    if (outcome == tests::kCannotUnshare) GTEST_SKIP() << "needs root and mount namespaces";
    EXPECT_EQ(outcome, 0);
}

TEST_F(CounterDatabaseTest, AFullDiskFailsTheWriteAndHarmsNothing) {
    const int outcome = tests::runInPrivateMounts([&] { return fillTheDisk(folder_.path()); });
    if (outcome == tests::kCannotUnshare) GTEST_SKIP() << "needs root and mount namespaces";
    EXPECT_EQ(outcome, 0);
}

}  // namespace
}  // namespace quorvix::linuxos
