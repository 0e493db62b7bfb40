#include "platform/linux/CounterStore.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "platform/linux/Sqlite.h"
#include "tests/support/NoThreads.h"
#include "tests/support/RecordingLog.h"
#include "tests/support/TemporaryFolder.h"

namespace quorvix::linuxos {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

constexpr seconds kPatience{20};

class CounterStoreTest : public testing::Test {
protected:
    CounterStoreOptions options() {
        return {
            .folder = folder_.path("store"), .exportFolder = folder_.path("export"), .writeInterval = milliseconds(1)};
    }
    void SetUp() override { makeFolder(); }
    void makeFolder() { std::filesystem::create_directory(folder_.path("store")); }
    std::string database() const { return folder_.path("store/tallisk.db"); }
    bool opened() const { return std::filesystem::exists(database()); }
    std::int64_t stored(const std::string& sql) const { return SqliteDatabase(database()).number(sql.c_str()); }

    static std::uint64_t selfCounter(const CounterStore& store, std::string_view name) {
        const JsonObject counters = store.selfCounters();
        for (const auto& [key, value] : counters.members()) {
            if (key == name) return std::get<std::uint64_t>(value.content());
        }
        ADD_FAILURE() << "no counter " << name;
        return 0;
    }
    // Waits for the store's own thread, which has real time.
    template <class Condition>
    static bool eventually(Condition condition) {
        const auto end = steady_clock::now() + kPatience;
        while (!condition()) {
            if (steady_clock::now() > end) return false;
            std::this_thread::sleep_for(milliseconds(2));
        }
        return true;
    }

    tests::TemporaryFolder folder_;
    tests::RecordingLog log_;
};

TEST_F(CounterStoreTest, TouchesNoFileBeforeTheFirstChange) {
    CounterStore store(log_, options());
    EXPECT_TRUE(store.flush(kPatience));
    EXPECT_FALSE(opened());
    store.addToScalar("a.b", 1);
    EXPECT_TRUE(store.flush(kPatience));
    EXPECT_TRUE(opened());
}

TEST_F(CounterStoreTest, WritesByItselfAfterTheInterval) {
    CounterStore store(log_, options());
    store.addToScalar("a.b", 3);
    EXPECT_TRUE(eventually([&] { return selfCounter(store, "writes") == 1; }));
    EXPECT_EQ(stored("SELECT value FROM scalar"), 3);
}

TEST_F(CounterStoreTest, WhatWasCountedWithoutAThreadIsWrittenByTheFlush) {
    CounterStore store(log_, options());
    {
        const tests::NoThreads none;
        store.addToScalar("a.b", 3);
        EXPECT_EQ(selfCounter(store, "failedWrites"), 1u);
        EXPECT_FALSE(store.flush(milliseconds(1)));
    }
    EXPECT_FALSE(opened());
    EXPECT_TRUE(store.flush(kPatience));
    EXPECT_EQ(stored("SELECT value FROM scalar"), 3);
}

TEST_F(CounterStoreTest, ABurstIsOneWrite) {
    auto slow = options();
    slow.writeInterval = std::chrono::hours(1);
    CounterStore store(log_, slow);
    for (int change = 0; change < 10000; ++change) store.addToScalar("a.b", 1);
    EXPECT_EQ(selfCounter(store, "writes"), 0u);
    EXPECT_EQ(selfCounter(store, "pendingKeys"), 1u);
    EXPECT_TRUE(store.flush(kPatience));
    EXPECT_EQ(selfCounter(store, "writes"), 1u);
    EXPECT_EQ(selfCounter(store, "pendingKeys"), 0u);
    EXPECT_EQ(stored("SELECT value FROM scalar"), 10000);
}

TEST_F(CounterStoreTest, ThreadsLoseNothing) {
    CounterStore store(log_, options());
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([&] {
            for (int change = 0; change < 2000; ++change) {
                store.addToScalar("a.b", 1);
                store.pushToDistribution("a.b", "b", 1);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_TRUE(store.flush(kPatience));
    EXPECT_EQ(stored("SELECT value FROM scalar"), 8000);
    EXPECT_EQ(stored("SELECT count FROM distribution"), 8000);
}

TEST_F(CounterStoreTest, IsDurableAcrossRuns) {
    for (int run = 1; run <= 3; ++run) {
        CounterStore store(log_, options());
        store.addToScalar("a.b", 1);
    }
    EXPECT_EQ(stored("SELECT value FROM scalar"), 3);
}

TEST_F(CounterStoreTest, KeepsChangesWhileTheFolderIsMissingAndSaysSoOnce) {
    std::filesystem::remove(folder_.path("store"));
    auto eager = options();
    eager.firstRetry = milliseconds(1);
    eager.lastRetry = milliseconds(4);
    CounterStore store(log_, eager);
    store.addToScalar("a.b", 1);
    EXPECT_TRUE(eventually([&] { return selfCounter(store, "failedWrites") >= 3; }));
    store.addToScalar("a.b", 1);
    EXPECT_FALSE(store.flush(kPatience));
    EXPECT_EQ(log_.lines().size(), 1u);
    makeFolder();
    EXPECT_TRUE(eventually([&] { return selfCounter(store, "writes") == 1; }));
    EXPECT_EQ(stored("SELECT value FROM scalar"), 2);
    EXPECT_TRUE(eventually([&] { return log_.lines().size() == 2; }));
    EXPECT_EQ(log_.lines().back(), "platform: The counters are written again.");
}

TEST_F(CounterStoreTest, AFailedWriteIsNotRetriedBeforeItsTime) {
    std::filesystem::remove(folder_.path("store"));
    CounterStore store(log_, options());  // the first retry is 10 s away
    store.addToScalar("a.b", 1);
    EXPECT_TRUE(eventually([&] { return selfCounter(store, "failedWrites") == 1; }));
    for (int change = 0; change < 100; ++change) store.addToScalar("a.b", 1);
    std::this_thread::sleep_for(milliseconds(50));  // fifty intervals
    EXPECT_EQ(selfCounter(store, "failedWrites"), 1u);
}

TEST_F(CounterStoreTest, ALockedDatabaseBlocksNoCallerAndKeepsTheBudget) {
    CounterStore store(log_, options());
    store.addToScalar("a.b", 1);
    ASSERT_TRUE(store.flush(kPatience));
    SqliteDatabase other(database());
    other.execute("BEGIN IMMEDIATE");
    const auto begin = steady_clock::now();
    for (int change = 0; change < 1000; ++change) store.addToScalar("a.b", 1);
    EXPECT_FALSE(store.flush(milliseconds(50)));
    EXPECT_LT(steady_clock::now() - begin, milliseconds(900));  // the writer itself waits for 1 s
    other.execute("ROLLBACK");
    EXPECT_TRUE(store.flush(kPatience));
    EXPECT_EQ(stored("SELECT value FROM scalar"), 1001);
}

TEST_F(CounterStoreTest, RefusalsAreCountedByReason) {
    CounterStore store(log_, options());
    store.addToScalar(std::string(kMaximumKeyLength + 1, 'k'), 1);
    store.pushToDistribution("a.b", "b", std::numeric_limits<double>::quiet_NaN());
    EXPECT_EQ(selfCounter(store, "refusedKeyTooLong"), 1u);
    EXPECT_EQ(selfCounter(store, "refusedNotFinite"), 1u);
    for (std::size_t index = 0; index <= kMaximumKeysOfProcess; ++index) {
        store.addToScalar("kind" + std::to_string(index) + ".app", 1);
        ASSERT_TRUE(store.flush(kPatience));  // one a transaction, so that the database refuses
    }
    EXPECT_EQ(selfCounter(store, "refusedProcessFull"), 1u);
    EXPECT_EQ(stored("SELECT count(*) FROM scalar"), static_cast<std::int64_t>(kMaximumKeysOfProcess));
}

TEST_F(CounterStoreTest, ExportsOnceTheFolderIsThere) {
    CounterStore store(log_, options());
    store.addToScalar("a.b", 1);
    EXPECT_TRUE(eventually([&] { return selfCounter(store, "exports") == 1; }));
    EXPECT_FALSE(std::filesystem::exists(folder_.path("export")));
    std::filesystem::create_directory(folder_.path("export"));
    auto eager = options();
    eager.exportInterval = milliseconds(1);
    CounterStore second(log_, eager);
    second.addToScalar("a.b", 1);
    EXPECT_TRUE(eventually([&] { return std::filesystem::exists(folder_.path("export/quorvix.prom")); }));
}

// Whoever has flushed may end the process.
TEST_F(CounterStoreTest, FlushReturnsOnlyAfterTheExportThatIsDue) {
    std::filesystem::create_directory(folder_.path("export"));
    auto slow = options();
    slow.writeInterval = std::chrono::hours(1);  // the flush alone writes
    CounterStore store(log_, slow);
    for (int key = 0; key < 1000; ++key) store.setScalar("key." + std::to_string(key), key);
    EXPECT_TRUE(store.flush(kPatience));
    EXPECT_TRUE(std::filesystem::exists(folder_.path("export/quorvix.prom")));
    EXPECT_FALSE(std::filesystem::exists(folder_.path("export/quorvix.prom.new")));
}

}  // namespace
}  // namespace quorvix::linuxos
