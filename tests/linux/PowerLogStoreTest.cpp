#include "platform/linux/PowerLogStore.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <latch>
#include <limits>
#include <string>
#include <thread>

#include "platform/linux/Json.h"
#include "platform/linux/Sqlite.h"
#include "tests/support/PowerLogEvents.h"
#include "tests/support/RecordingLog.h"
#include "tests/support/TemporaryFolder.h"

namespace quorvix::linuxos {
namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using std::chrono::seconds;
using tests::dictionary;
using tests::kActivationCategory;
using tests::PowerLogEvents;

class PowerLogStoreTest : public testing::Test {
protected:
    static PowerLogStoreOptions optionsFor(PowerLogStoreTest& test) {
        return {.folder = test.folder_.path(),
                .limits = {.busyTimeout = milliseconds(20)},
                .wallNow =
                    [&test] {
                        if (test.whileStoring_) test.whileStoring_();
                        return test.wall_;
                    },
                .now = [&test] { return test.now_; }};
    }
    std::string path(const std::string& suffix = "") const { return folder_.path("wattrel.db" + suffix); }
    std::int64_t number(const std::string& sql) { return SqliteDatabase(path()).number(sql.c_str()); }
    std::string text(const std::string& sql) { return SqliteDatabase(path()).text(sql.c_str()); }
    std::int64_t activations() { return number("SELECT count(*) FROM ActivationData"); }
    std::uint64_t counter(const std::string& name) const {
        const JsonObject counters = store_.selfCounters();
        for (const auto& [key, value] : counters.members()) {
            if (key == name) return std::get<std::uint64_t>(value.content());
        }
        ADD_FAILURE() << "no counter " << name;
        return 0;
    }

    tests::TemporaryFolder folder_;
    tests::RecordingLog log_;
    std::function<void()> whileStoring_;
    WallTime wall_{seconds(1700000000)};
    std::chrono::steady_clock::time_point now_{hours(1)};
    PowerLogStore store_{log_, optionsFor(*this)};
};

TEST_F(PowerLogStoreTest, StoresEveryValueOfAnActivation) {
    PowerLogEvents{.timestamp = 700000000.125, .result = 255, .systemUptime = -5}.sendTo(store_);
    EXPECT_EQ(text("SELECT Timestamp || ' ' || ActivationID || ' ' || SystemUptime || ' ' || BundleID || ' ' || "
                   "ActivationDuration_ms || ' ' || ActivationResult || ' ' || ActivationType || ' ' || "
                   "ActivationFlags FROM ActivationData"),
              "700000000.125 7 -5 com.example.app 250 255 1 0");
    EXPECT_EQ(text("SELECT group_concat(printf('%llu', UniqueID) || ' ' || ProcessName) FROM ProcessData"),
              "18446744069414584320 process0,18446744069414584321 process1");
    EXPECT_EQ(text("SELECT group_concat(EntryKey || ':' || TotalCPU_ms || ' ' || QOSDisabled_ms || ' ' || "
                   "QOSUserInteractive_ms || ' ' || QOSUserInitiated_ms || ' ' || QOSDefault_ms || ' ' || "
                   "QOSUtility_ms || ' ' || QOSMaintenance_ms || ' ' || QOSBackground_ms || ' ' || IOReads_kb || ' ' "
                   "|| IOWrites_kb || ' ' || PageIns || ' ' || ProcessLifecycleState) FROM CPUStatistics"),
              "-1:101 102 103 104 105 106 107 108 109 110 111 1,0:1 2 3 4 5 6 7 8 9 10 11 0");
    EXPECT_EQ(text("SELECT group_concat(SequenceID || ':' || FreeQueue || ' ' || CompressorSize || ' ' || SwapOuts) "
                   "FROM MemoryStatistics"),
              "1:1001 1010 1022,2:4002 4020 4044");
    EXPECT_EQ(counter("storedActivations"), 1u);
    EXPECT_EQ(counter("refusedValues"), 0u);
}

TEST_F(PowerLogStoreTest, LargestUnsignedNumbersReadBackUnsigned) {
    constexpr auto kLargest = std::numeric_limits<std::uint64_t>::max();
    PowerLogEvents{.activationID = kLargest, .flags = kLargest - 1}.sendTo(store_);
    EXPECT_EQ(text("SELECT ID FROM Activations"), "18446744073709551615");
    EXPECT_EQ(number("SELECT ActivationID FROM ActivationData"), -1);
    EXPECT_EQ(text("SELECT printf('%llu', ActivationFlags) FROM ActivationData"), "18446744073709551614");
}

TEST_F(PowerLogStoreTest, OnlyRootReadsItsFiles) {
    PowerLogEvents{}.sendTo(store_);
    for (const char* suffix : {"", "-wal", "-shm"}) {
        struct stat status {};
        ASSERT_EQ(stat(path(suffix).c_str(), &status), 0) << suffix;
        EXPECT_EQ(status.st_mode & 0777, 0600u) << suffix;
    }
}

TEST_F(PowerLogStoreTest, NothingIsStoredBeforeTheLastEvent) {
    const PowerLogEvents events;
    store_.sendEvent(kActivationCategory, "ActivationData", events.activationData());
    store_.sendEvent(kActivationCategory, "ProcessData", events.processData());
    store_.sendEvent(kActivationCategory, "CPUStatistics", events.cpuStatistics());
    EXPECT_FALSE(std::filesystem::exists(path()));
    store_.sendEvent(kActivationCategory, "MemoryStatistics", events.memoryStatistics());
    EXPECT_EQ(activations(), 1);
}

TEST_F(PowerLogStoreTest, AnActivationWithoutItsLastEventIsStoredAtTheNext) {
    const PowerLogEvents events;
    store_.sendEvent(kActivationCategory, "ActivationData", events.activationData());
    PowerLogEvents{.activationID = 8}.sendTo(store_);
    EXPECT_EQ(activations(), 2);
}

TEST_F(PowerLogStoreTest, FlushStoresWhatWasGathered) {
    EXPECT_TRUE(store_.flush(milliseconds(100)));
    store_.sendEvent(kActivationCategory, "ActivationData", PowerLogEvents{}.activationData());
    EXPECT_TRUE(store_.flush(milliseconds(100)));
    EXPECT_EQ(activations(), 1);
}

TEST_F(PowerLogStoreTest, FlushGivesUpWhileTheDiskHoldsAnotherWriteUp) {
    std::latch storing(1);
    std::latch held(1);
    whileStoring_ = [&] {
        storing.count_down();
        held.wait();
    };
    std::thread writer([this] { PowerLogEvents{}.sendTo(store_); });
    storing.wait();
    EXPECT_FALSE(store_.flush(milliseconds(0)));
    EXPECT_FALSE(store_.flush(milliseconds(20)));
    std::thread patient([this] { EXPECT_TRUE(store_.flush(hours(1))); });
    held.count_down();
    patient.join();
    EXPECT_EQ(activations(), 1);
    writer.join();
}

TEST_F(PowerLogStoreTest, EmptyDictionariesAreNoRows) {
    store_.sendEvent(kActivationCategory, "ActivationData", PowerLogEvents{}.activationData());
    for (const char* name : {"ProcessData", "CPUStatistics", "MemoryStatistics"}) {
        store_.sendEvent(kActivationCategory, name, {});
    }
    EXPECT_EQ(activations(), 1);
    EXPECT_EQ(number("SELECT count(*) FROM CPUStatistics"), 0);
}

TEST_F(PowerLogStoreTest, RefusesWhatIsNoActivationsEvent) {
    store_.sendEvent(kActivationCategory, "Unknown", {});
    store_.sendEvent(kActivationCategory + 1, "ActivationData", PowerLogEvents{}.activationData());
    store_.sendEvent(kActivationCategory, "CPUStatistics", PowerLogEvents{}.cpuStatistics());
    EXPECT_EQ(counter("refusedEvents"), 3u);
    EXPECT_EQ(log_.lines().size(), 1u);
    PowerLogEvents{}.sendTo(store_);
    EXPECT_EQ(activations(), 1);
}

TEST_F(PowerLogStoreTest, RefusesASecondEventOfAKind) {
    const PowerLogEvents events;
    store_.sendEvent(kActivationCategory, "ActivationData", events.activationData());
    store_.sendEvent(kActivationCategory, "CPUStatistics", events.cpuStatistics());
    store_.sendEvent(kActivationCategory, "CPUStatistics", {});
    store_.sendEvent(kActivationCategory, "ProcessData", events.processData());
    store_.sendEvent(kActivationCategory, "MemoryStatistics", events.memoryStatistics());
    EXPECT_EQ(counter("refusedEvents"), 2u);
    EXPECT_EQ(number("SELECT count(*) FROM CPUStatistics"), 2);
}

TEST_F(PowerLogStoreTest, CountsValuesThatNoColumnTakes) {
    PowerLogDictionary activation = PowerLogEvents{}.activationData();
    activation.set("Timestamp", std::string("soon"));
    activation.set("Unknown", std::uint64_t{1});
    store_.sendEvent(kActivationCategory, "ActivationData", activation);
    store_.sendEvent(kActivationCategory, "ProcessData", dictionary({{"text key", PowerLogDictionary()}}));
    store_.sendEvent(kActivationCategory, "CPUStatistics", dictionary({{std::int64_t{0}, 0.5}}));
    store_.sendEvent(kActivationCategory, "MemoryStatistics", {});
    EXPECT_EQ(counter("refusedValues"), 4u);
    EXPECT_EQ(number("SELECT Timestamp IS NULL FROM ActivationData"), 1);
}

TEST_F(PowerLogStoreTest, NamesAreBytes) {
    const std::string name("a\0\xff'; DROP TABLE ActivationData; --", 36);
    PowerLogEvents{.bundleID = name}.sendTo(store_);
    EXPECT_EQ(text("SELECT BundleID FROM ActivationData"), name);
}

TEST_F(PowerLogStoreTest, ALockedStoreDropsActivationsSaysSoOnceAndIsTriedAgain) {
    PowerLogEvents{}.sendTo(store_);
    SqliteDatabase other(path());
    other.execute("BEGIN IMMEDIATE");
    PowerLogEvents{}.sendTo(store_);
    EXPECT_EQ(counter("droppedEvents"), 4u);
    EXPECT_EQ(counter("failedWrites"), 1u);
    other.execute("ROLLBACK");
    now_ += milliseconds(9999);
    PowerLogEvents{}.sendTo(store_);
    EXPECT_EQ(counter("droppedEvents"), 8u);
    EXPECT_EQ(counter("failedWrites"), 1u);
    EXPECT_EQ(log_.lines().size(), 1u);
    now_ += milliseconds(1);
    PowerLogEvents{}.sendTo(store_);
    EXPECT_EQ(activations(), 2);
    EXPECT_EQ(log_.lines().back(), "platform: The power log is written again.");
}

TEST_F(PowerLogStoreTest, WaitsTwiceAsLongAfterEachFailure) {
    std::filesystem::create_directory(path());
    std::uint64_t failures = 0;
    for (const seconds wait :
         {seconds(10), seconds(20), seconds(40), seconds(80), seconds(160), seconds(320), seconds(600), seconds(600)}) {
        PowerLogEvents{}.sendTo(store_);
        EXPECT_EQ(counter("failedWrites"), ++failures);
        now_ += wait - milliseconds(1);
        PowerLogEvents{}.sendTo(store_);
        EXPECT_EQ(counter("failedWrites"), failures);
        now_ += milliseconds(1);
    }
    EXPECT_EQ(log_.lines().size(), 1u);
}

TEST_F(PowerLogStoreTest, WorksOnceItsFolderIsThere) {
    PowerLogStoreOptions options = optionsFor(*this);
    options.folder = folder_.path("later");
    PowerLogStore store(log_, options);
    PowerLogEvents{}.sendTo(store);
    std::filesystem::create_directory(folder_.path("later"));
    now_ += seconds(10);
    PowerLogEvents{}.sendTo(store);
    EXPECT_EQ(SqliteDatabase(folder_.path("later/wattrel.db")).number("SELECT count(*) FROM ActivationData"), 1);
}

}  // namespace
}  // namespace quorvix::linuxos
