#include "platform/linux/PowerLogDatabase.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>

#include "platform/linux/Sqlite.h"
#include "tests/support/FailingRead.h"
#include "tests/support/PowerLogEvents.h"
#include "tests/support/PrivateMounts.h"
#include "tests/support/TemporaryFolder.h"

namespace quorvix::linuxos {
namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using std::chrono::seconds;
using tests::PowerLogEvents;

constexpr WallTime kStart{seconds(1700000000)};
constexpr auto kNinetyDays = hours(24) * 90;

PowerLogActivation activationOf(const PowerLogEvents& events) {
    return {{events.activationData(), events.processData(), events.cpuStatistics(), events.memoryStatistics()}};
}

class PowerLogDatabaseTest : public testing::Test {
protected:
    PowerLogDatabase::Failure write(const PowerLogEvents& events = {}, WallTime now = kStart) {
        return database_.write(activationOf(events), now);
    }
    std::string path(const std::string& suffix = "") const { return folder_.path("wattrel.db" + suffix); }
    std::int64_t number(const std::string& sql) { return SqliteDatabase(path()).number(sql.c_str()); }
    std::int64_t activations() { return number("SELECT count(*) FROM ActivationData"); }

    tests::TemporaryFolder folder_;
    PowerLogDatabase database_{folder_.path(), {.busyTimeout = milliseconds(20)}};
};

TEST_F(PowerLogDatabaseTest, DropsActivationsOlderThanNinetyDays) {
    EXPECT_EQ(write({.bundleID = "old"}), std::nullopt);
    EXPECT_EQ(write({.bundleID = "kept"}, kStart + hours(1)), std::nullopt);
    EXPECT_EQ(write({.bundleID = "lately"}, kStart + kNinetyDays - hours(48)), std::nullopt);
    EXPECT_EQ(write({.bundleID = "onTime"}, kStart + kNinetyDays), std::nullopt);
    EXPECT_EQ(activations(), 4);
    EXPECT_EQ(write({.bundleID = "late"}, kStart + kNinetyDays + hours(1)), std::nullopt);
    EXPECT_EQ(activations(), 4);
    EXPECT_EQ(number("SELECT count(*) FROM ActivationData WHERE BundleID = 'old'"), 0);
    EXPECT_EQ(database_.counts().agedActivations, 1u);
}

TEST_F(PowerLogDatabaseTest, RowsGoWithTheirActivation) {
    EXPECT_EQ(write(), std::nullopt);
    EXPECT_EQ(write({}, kStart + kNinetyDays - hours(48)), std::nullopt);
    EXPECT_EQ(write({}, kStart + kNinetyDays + hours(2)), std::nullopt);
    EXPECT_EQ(number("SELECT count(DISTINCT Activation) FROM CPUStatistics"), 2);
    EXPECT_EQ(number("SELECT count(DISTINCT Activation) FROM MemoryStatistics"), 2);
    EXPECT_EQ(number("SELECT count(DISTINCT Activation) FROM ProcessData"), 2);
}

TEST_F(PowerLogDatabaseTest, ANameStaysWhileLaterActivationsReferToIt) {
    EXPECT_EQ(write(), std::nullopt);
    PowerLogActivation nameless = activationOf({});
    nameless.events[1] = PowerLogDictionary();
    EXPECT_EQ(database_.write(nameless, kStart + kNinetyDays - hours(48)), std::nullopt);
    EXPECT_EQ(database_.write(nameless, kStart + kNinetyDays + milliseconds(1500)), std::nullopt);
    EXPECT_EQ(activations(), 2);
    EXPECT_EQ(number("SELECT count(*) FROM CPUByActivation WHERE ProcessName = 'process1'"), 2);
    EXPECT_EQ(write({.processes = 0}, kStart + 3 * kNinetyDays), std::nullopt);
    EXPECT_EQ(write({.processes = 0}, kStart + 3 * kNinetyDays + hours(24)), std::nullopt);
    EXPECT_EQ(number("SELECT count(*) FROM ProcessData"), 0);
}

TEST_F(PowerLogDatabaseTest, AClockThatStepsBackDropsNothing) {
    EXPECT_EQ(write(), std::nullopt);
    EXPECT_EQ(write({}, WallTime{seconds(0)}), std::nullopt);
    EXPECT_EQ(activations(), 2);
}

TEST_F(PowerLogDatabaseTest, AClockThatJumpsAheadDropsNothingForADay) {
    constexpr WallTime kWrong = kStart + hours(24) * 3650;
    for (int day = 0; day < 5; ++day) EXPECT_EQ(write({}, kStart + hours(24) * day), std::nullopt);
    EXPECT_EQ(write({}, kWrong), std::nullopt);
    EXPECT_EQ(write({}, kWrong + hours(24) - seconds(1)), std::nullopt);
    PowerLogDatabase reopened(folder_.path(), {});
    EXPECT_EQ(reopened.write(activationOf({}), kWrong + hours(23)), std::nullopt);
    // Set right again.
    EXPECT_EQ(write({}, kStart + hours(24) * 5), std::nullopt);
    EXPECT_EQ(activations(), 9);
    EXPECT_EQ(database_.counts().agedActivations, 0u);
}

TEST_F(PowerLogDatabaseTest, AClockThatStaysAheadForADayIsBelieved) {
    constexpr WallTime kLater = kStart + hours(24) * 3650;
    EXPECT_EQ(write(), std::nullopt);
    EXPECT_EQ(write({}, kLater), std::nullopt);
    EXPECT_EQ(activations(), 2);
    EXPECT_EQ(write({}, kLater + hours(24)), std::nullopt);
    EXPECT_EQ(activations(), 2);
    EXPECT_EQ(database_.counts().agedActivations, 1u);
}

TEST_F(PowerLogDatabaseTest, WhatWasStoredLongerThanAWeekAgoSaysNothingOfTheClock) {
    constexpr auto kWeek = hours(24) * 7;
    for (const seconds since : {seconds(kWeek) + seconds(1), seconds(kWeek)}) {
        tests::TemporaryFolder folder;
        PowerLogDatabase database(folder.path(), {});
        for (const WallTime now : {kStart, kStart + kNinetyDays + hours(1) - since, kStart + kNinetyDays + hours(1)}) {
            EXPECT_EQ(database.write(activationOf({}), now), std::nullopt);
        }
        EXPECT_EQ(database.counts().agedActivations, since == kWeek ? 1u : 0u);
    }
}

TEST_F(PowerLogDatabaseTest, TheOldestMakeRoomAndTheFileStaysInItsBound) {
    constexpr std::int64_t kBytes = 1024 * 1024;
    PowerLogDatabase database(folder_.path(), {.bytes = kBytes});
    int written = 0;
    while (database.counts().displacedActivations == 0 && written < 1000) {
        ASSERT_EQ(database.write(activationOf({.bundleID = std::to_string(++written), .processes = 100}), kStart),
                  std::nullopt);
    }
    EXPECT_GT(written, 20);
    EXPECT_EQ(number("SELECT count(*) FROM ActivationData WHERE BundleID = '1'"), 0);
    for (int more = 0; more < 200; ++more) {
        ASSERT_EQ(database.write(activationOf({.bundleID = std::to_string(++written), .processes = 100}), kStart),
                  std::nullopt);
    }
    EXPECT_EQ(number("SELECT max(CAST(BundleID AS INTEGER)) FROM ActivationData"), written);
    // What is there is without a gap.
    EXPECT_EQ(number("SELECT max(Activation) - min(Activation) + 1 - count(*) FROM ActivationData"), 0);
    EXPECT_EQ(activations() + static_cast<std::int64_t>(database.counts().displacedActivations), written);
    EXPECT_LE(std::filesystem::file_size(path()), static_cast<std::uintmax_t>(kBytes));
}

TEST_F(PowerLogDatabaseTest, AnActivationLargerThanTheBoundFailsAndLeavesTheRest) {
    PowerLogDatabase database(folder_.path(), {.bytes = 1024 * 1024});
    EXPECT_EQ(database.write(activationOf({}), kStart), std::nullopt);
    EXPECT_NE(database.write(activationOf({.processes = 20000}), kStart), std::nullopt);
    EXPECT_EQ(activations(), 1);
    EXPECT_EQ(database.write(activationOf({}), kStart), std::nullopt);
}

TEST_F(PowerLogDatabaseTest, AReaderThatNeverEndsIsNotInTheWayUntilTheJournalIsFull) {
    constexpr std::int64_t kJournal = 512 * 1024;
    PowerLogDatabase database(folder_.path(), {.journalBytes = kJournal, .busyTimeout = milliseconds(5)});
    EXPECT_EQ(database.write(activationOf({}), kStart), std::nullopt);
    SqliteDatabase reader(path());
    reader.execute("BEGIN");
    EXPECT_EQ(reader.number("SELECT count(*) FROM ActivationData"), 1);
    int written = 1;
    PowerLogDatabase::Failure failure;
    while (!failure && written < 1000) {
        failure = database.write(activationOf({.processes = 100}), kStart);
        if (!failure) ++written;
    }
    EXPECT_EQ(failure, "a reader keeps the journal from being emptied");
    EXPECT_GT(written, 5);
    EXPECT_LT(std::filesystem::file_size(path("-wal")), static_cast<std::uintmax_t>(2 * kJournal));
    EXPECT_EQ(reader.number("SELECT count(*) FROM ActivationData"), 1);
    reader.execute("COMMIT");
    EXPECT_EQ(database.write(activationOf({}), kStart), std::nullopt);
    EXPECT_EQ(reader.number("SELECT count(*) FROM ActivationData"), written + 1);
}

TEST_F(PowerLogDatabaseTest, MovesADamagedFileAsideAndKeepsEveryOne) {
    for (int round = 1; round <= PowerLogDatabase::kMaximumMovedAside; ++round) {
        tests::writeWholeFile(path(), std::string(8192, 'x'));
        EXPECT_EQ(write(), std::nullopt);
        EXPECT_EQ(tests::readWholeFile(path(".damaged-" + std::to_string(round))), std::string(8192, 'x'));
        EXPECT_EQ(activations(), 1);
        for (const char* suffix : {"", "-wal", "-shm"}) unlink(path(suffix).c_str());
    }
    tests::writeWholeFile(path(), std::string(8192, 'x'));
    EXPECT_NE(write(), std::nullopt);
    EXPECT_EQ(tests::readWholeFile(path()), std::string(8192, 'x'));
    EXPECT_EQ(database_.counts().movedAside, static_cast<std::uint64_t>(PowerLogDatabase::kMaximumMovedAside));
}

TEST_F(PowerLogDatabaseTest, NoticesDamageInTheMiddleOfAFile) {
    {
        PowerLogDatabase writer(folder_.path(), {});
        EXPECT_EQ(writer.write(activationOf({.processes = 500}), kStart), std::nullopt);
    }
    SqliteDatabase(path()).execute("PRAGMA wal_checkpoint(TRUNCATE)");
    std::string content = tests::readWholeFile(path());
    ASSERT_GT(content.size(), 65536u);
    for (std::size_t at = 49152; at < content.size(); ++at) content[at] = '\x5a';
    tests::writeWholeFile(path(), content);
    EXPECT_EQ(write(), std::nullopt);
    EXPECT_EQ(activations(), 1);
    EXPECT_TRUE(std::filesystem::exists(path(".damaged-1")));
}

// Each read of the opening, the check and the write fails once, of what is in the journal and of what is in the file.
TEST_F(PowerLogDatabaseTest, OneFailedReadMovesNothingAsideAndLosesNoActivation) {
    for (int index = 0; index < 30; ++index) EXPECT_EQ(write(), std::nullopt);
    std::int64_t told = 30;
    for (const bool inJournal : {true, false}) {
        if (!inJournal) SqliteDatabase(path()).execute("PRAGMA wal_checkpoint(TRUNCATE)");
        for (int number = 1;; ++number) {
            ASSERT_LT(number, 1000);
            PowerLogDatabase database(folder_.path(), {});
            const tests::FailingRead failing(number);
            if (!database.write(activationOf({}), kStart)) ++told;
            ASSERT_EQ(database.counts().movedAside, 0u) << "at read " << number;
            if (!tests::FailingRead::struck()) {
                EXPECT_GT(number, 10) << "there were no reads to fail";
                break;
            }
        }
    }
    EXPECT_EQ(activations(), told);
    EXPECT_FALSE(std::filesystem::exists(path(".damaged-1")));
}

TEST_F(PowerLogDatabaseTest, MovesAFileOfALaterVersionAside) {
    EXPECT_EQ(write({.bundleID = "old"}), std::nullopt);
    SqliteDatabase(path()).execute("PRAGMA user_version = 3");
    PowerLogDatabase later(folder_.path(), {});
    EXPECT_EQ(later.write(activationOf({.bundleID = "new"}), kStart), std::nullopt);
    EXPECT_EQ(activations(), 1);
    EXPECT_EQ(SqliteDatabase(path(".newer-1")).text("SELECT BundleID FROM ActivationData"), "old");
}

TEST_F(PowerLogDatabaseTest, MigratesAFileOfAnOlderVersionAndKeepsWhatIsInIt) {
    EXPECT_EQ(write({.bundleID = "old"}), std::nullopt);
    SqliteDatabase(path()).execute("CREATE INDEX ProcessNames ON ProcessData (UniqueID); PRAGMA user_version = 1");
    PowerLogDatabase later(folder_.path(), {});
    EXPECT_EQ(later.write(activationOf({.bundleID = "new"}), kStart), std::nullopt);
    EXPECT_EQ(activations(), 2);
    SqliteDatabase migrated(path());
    EXPECT_EQ(migrated.number("PRAGMA user_version"), 2);
    EXPECT_EQ(migrated.number("SELECT count(*) FROM sqlite_schema WHERE name = 'ProcessNames'"), 0);
    EXPECT_FALSE(std::filesystem::exists(path(".newer-1")));
}

TEST_F(PowerLogDatabaseTest, MovesAFileOfAnImpossibleVersionAside) {
    EXPECT_EQ(write({.bundleID = "old"}), std::nullopt);
    SqliteDatabase(path()).execute("PRAGMA user_version = -1");
    PowerLogDatabase later(folder_.path(), {});
    EXPECT_EQ(later.write(activationOf({.bundleID = "new"}), kStart), std::nullopt);
    EXPECT_EQ(SqliteDatabase(path(".newer-1")).text("SELECT BundleID FROM ActivationData"), "old");
}

TEST_F(PowerLogDatabaseTest, MovesAFileThatLacksATableAside) {
    EXPECT_EQ(write({.bundleID = "old"}), std::nullopt);
    SqliteDatabase(path()).execute("DROP TABLE MemoryStatistics");
    // Its own statements fail; the file is looked at when it is opened again.
    EXPECT_NE(write(), std::nullopt);
    EXPECT_EQ(write({.bundleID = "new"}), std::nullopt);
    EXPECT_EQ(activations(), 1);
    EXPECT_EQ(SqliteDatabase(path(".damaged-1")).text("SELECT BundleID FROM ActivationData"), "old");
}

TEST_F(PowerLogDatabaseTest, MovesAFileThatLacksAColumnAside) {
    EXPECT_EQ(write({.bundleID = "old"}), std::nullopt);
    SqliteDatabase(path()).execute("DROP VIEW IOByActivation; ALTER TABLE MemoryStatistics DROP COLUMN SwapOuts");
    PowerLogDatabase later(folder_.path(), {});
    EXPECT_EQ(later.write(activationOf({.bundleID = "new"}), kStart), std::nullopt);
    EXPECT_TRUE(std::filesystem::exists(path(".damaged-1")));
}

TEST_F(PowerLogDatabaseTest, BeginsANewFileWhenItsOwnIsTakenAway) {
    EXPECT_EQ(write(), std::nullopt);
    for (const char* suffix : {"", "-wal", "-shm"}) unlink(path(suffix).c_str());
    EXPECT_EQ(write(), std::nullopt);
    EXPECT_EQ(activations(), 1);
}

TEST_F(PowerLogDatabaseTest, NeverFollowsALinkInItsPlace) {
    tests::writeWholeFile(folder_.path("victim"), "");
    std::filesystem::create_symlink(folder_.path("victim"), path());
    EXPECT_NE(write(), std::nullopt);
    EXPECT_EQ(tests::readWholeFile(folder_.path("victim")), "");
}

// The child stores one activation after the other and says so after each, until it is killed in the middle.
TEST_F(PowerLogDatabaseTest, AKilledWriterLosesNothingItCommittedAndNothingIsHalf) {
    std::int64_t told = 0;
    for (int round = 0; round < 10; ++round) {
        int pipe[2];
        ASSERT_EQ(::pipe(pipe), 0);
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            PowerLogDatabase writer(folder_.path(), {});
            const PowerLogActivation activation = activationOf({.processes = 50});
            while (!writer.write(activation, kStart) && ::write(pipe[1], "+", 1) == 1) {
            }
            _exit(1);
        }
        close(pipe[1]);
        char byte = 0;
        for (int count = 0; count < 10 + 7 * round && read(pipe[0], &byte, 1) == 1; ++count) ++told;
        kill(child, SIGKILL);
        while (read(pipe[0], &byte, 1) == 1) ++told;
        close(pipe[0]);
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFSIGNALED(status));
        const std::int64_t stored = activations();
        EXPECT_GE(stored, told);
        EXPECT_LE(stored, told + 1);
        EXPECT_EQ(number("SELECT count(*) FROM CPUStatistics"), 50 * stored);
        EXPECT_EQ(number("SELECT count(*) FROM ProcessData"), 50 * stored);
        EXPECT_EQ(number("SELECT count(*) FROM MemoryStatistics"), 2 * stored);
        told = stored;
    }
    EXPECT_EQ(write(), std::nullopt);
    EXPECT_EQ(database_.counts().movedAside, 0u);
}

// In a tmpfs of 512 KiB: 0 as expected, else the number of what went wrong.
int fillTheDisk(const std::string& folder) {
    if (mount("tmpfs", folder.c_str(), "tmpfs", 0, "size=512k") != 0) return tests::kCannotUnshare;
    PowerLogDatabase database(folder, {});
    int stored = 0;
    PowerLogDatabase::Failure failure;
    while (!failure && stored < 1000) {
        failure = database.write(activationOf({.processes = 50}), kStart);
        if (!failure) ++stored;
    }
    if (!failure) return 1;
    if (stored < 3) return 2;
    if (mount("tmpfs", folder.c_str(), "tmpfs", MS_REMOUNT, "size=8m") != 0) return 3;
    SqliteDatabase reader(folder + "/wattrel.db");
    if (reader.number("SELECT count(*) FROM ActivationData") != stored) return 4;
    if (reader.number("SELECT count(*) FROM CPUStatistics") != 50 * stored) return 5;
    if (database.write(activationOf({.processes = 50}), kStart)) return 6;
    if (reader.number("SELECT count(*) FROM ActivationData") != stored + 1) return 7;
    return database.counts().movedAside != 0 ? 8 : 0;
}

TEST_F(PowerLogDatabaseTest, AFullDiskFailsTheWriteAndHarmsNothing) {
    const int outcome = tests::runInPrivateMounts([&] { return fillTheDisk(folder_.path()); });
    if (outcome == tests::kCannotUnshare) GTEST_SKIP() << "needs root and mount namespaces";
    EXPECT_EQ(outcome, 0);
}

class PowerLogViewsTest : public PowerLogDatabaseTest {
protected:
    void store(const std::string& bundle, std::uint64_t durationMs, std::uint8_t type = 1, std::uint8_t result = 0) {
        ASSERT_EQ(write({.bundleID = bundle, .durationMs = durationMs, .result = result, .type = type}), std::nullopt);
    }
    std::string row(const std::string& sql) { return SqliteDatabase(path()).text(sql.c_str()); }
    std::string durations(const std::string& bundle, const std::string& type = "launch") {
        return row(
            "SELECT Count || ' ' || Min_ms || ' ' || P50_ms || ' ' || P90_ms || ' ' || P99_ms || ' ' || Max_ms"
            " FROM Durations WHERE BundleID = '" +
            bundle + "' AND Type = '" + type + "'");
    }
};

TEST_F(PowerLogViewsTest, OneDurationIsEveryPercentile) {
    store("one", 120);
    EXPECT_EQ(durations("one"), "1 120 120 120 120 120");
}

// Nearest rank of 1..10: 5, 9, 10.
TEST_F(PowerLogViewsTest, PercentilesAreNearestRank) {
    for (const std::uint64_t tenth : {7, 1, 10, 4, 2, 9, 3, 8, 6, 5}) store("ten", tenth * 100);
    EXPECT_EQ(durations("ten"), "10 100 500 900 1000 1000");
    store("ten", 1100);
    // Of 11: ranks 6, 10, 11.
    EXPECT_EQ(durations("ten"), "11 100 600 1000 1100 1100");
}

TEST_F(PowerLogViewsTest, PercentilesOfAHundred) {
    for (std::uint64_t index = 100; index >= 1; --index) store("hundred", index * 10);
    EXPECT_EQ(durations("hundred"), "100 10 500 900 990 1000");
    store("hundred", 2000);
    EXPECT_EQ(durations("hundred"), "101 10 510 910 1000 2000");
}

TEST_F(PowerLogViewsTest, LaunchesAndResumesAreApart) {
    store("app", 1000);
    store("app", 10, 2);
    EXPECT_EQ(durations("app"), "1 1000 1000 1000 1000 1000");
    EXPECT_EQ(durations("app", "resume"), "1 10 10 10 10 10");
}

TEST_F(PowerLogViewsTest, WhatHasNoBeginOrNoEndHasNoDuration) {
    store("app", 100, 1, 31);
    store("app", 5000, 1, 32);
    store("app", 60000, 1, 33);
    store("app", 200, 1, 34);
    EXPECT_EQ(durations("app"), "2 100 100 200 200 200");
}

TEST_F(PowerLogViewsTest, TheWorstLaunchComesFirst) {
    store("quick", 10);
    store("slow", 5000);
    store("slower resume", 9000, 2);
    store("slow too", 4000);
    EXPECT_EQ(row("SELECT group_concat(BundleID) FROM (SELECT BundleID FROM WorstLaunches)"), "slow,slow too,quick");
}

TEST_F(PowerLogViewsTest, TellsWhoUsedTheProcessor) {
    store("app", 10);
    EXPECT_EQ(row("SELECT group_concat(ProcessName || ' ' || TotalCPU_ms || ' ' || State) FROM"
                  " (SELECT * FROM CPUByActivation ORDER BY TotalCPU_ms DESC)"),
              "process1 101 new,process0 1 alive");
}

TEST_F(PowerLogViewsTest, SumsWhatALaunchReadAndPagedIn) {
    store("app", 10);
    // 9 + 109, 10 + 110, 11 + 111; the host's counters are 1019 and 4038, 1011 and 4022.
    EXPECT_EQ(row("SELECT IOReads_kb || ' ' || IOWrites_kb || ' ' || PageIns || ' ' || HostPageIns || ' ' || HostFaults"
                  " FROM IOByActivation"),
              "118 120 122 3019 3011");
}

}  // namespace
}  // namespace quorvix::linuxos
