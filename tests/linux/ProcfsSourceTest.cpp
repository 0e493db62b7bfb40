#include "platform/linux/ProcfsSource.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/linux/ProcessTable.h"
#include "tests/support/TemporaryFolder.h"

namespace quorvix::linuxos {
namespace {

// A procfs of files that a test writes, with a clock beside it.
class FakeProcfsTest : public testing::Test {
protected:
    struct Thread {
        int policy = 0;
        int nice = 0;
        std::uint64_t runtimeNs = 0;
        int start = 100;
    };

    void SetUp() override {
        clocks_.clear();
        schedulings_.clear();
    }

    void write(std::int32_t pid, std::int32_t tid, const Thread& thread, std::size_t threads) {
        const std::string folder = proc_.path(std::to_string(pid) + "/task/" + std::to_string(tid));
        std::filesystem::create_directories(folder);
        writeStat(folder, tid, thread, threads);
    }
    void writeProcess(std::int32_t pid, std::uint64_t clockNs, const std::map<std::int32_t, Thread>& threads) {
        const std::string folder = proc_.path(std::to_string(pid));
        removeAllThreadsBut(threads, folder + "/task");
        for (const auto& [tid, thread] : threads) write(pid, tid, thread, threads.size());
        writeStat(folder, pid, threads.begin()->second, threads.size());
        tests::writeWholeFile(folder + "/io", "read_bytes: 4096\nwrite_bytes: 8192\n");
        tests::writeWholeFile(
            folder + "/status",
            "Name:\tx\nVmLck:\t 4 kB\nVmPin:\t 8 kB\nVmRSS:\t 100 kB\nRssAnon:\t 60 kB\nVmSwap:\t 2 kB\n");
        clocks_[pid] = clockNs;
    }
    // From then on the kernel tells a thread's scheduling without its stat.
    void tellScheduling(std::int32_t tid, ProcfsSource::Scheduling scheduling) { schedulings_[tid] = scheduling; }
    void remove(const std::string& file) { std::filesystem::remove(proc_.path(file)); }
    const ThreadSample* threadOf(std::int32_t tid) {
        const auto found = std::ranges::find(samples_.threads, tid, &ThreadSample::tid);
        return found == samples_.threads.end() ? nullptr : &*found;
    }
    const ProcessSample& readOne() {
        EXPECT_EQ(source_.read(samples_), 0);
        EXPECT_EQ(samples_.processes.size(), 1u);
        return samples_.processes[0];
    }
    // The folders of those that stay stay the same.
    static void removeAllThreadsBut(const std::map<std::int32_t, Thread>& threads, const std::string& folder) {
        if (!std::filesystem::exists(folder)) return;
        std::vector<std::filesystem::path> gone;
        for (const auto& entry : std::filesystem::directory_iterator(folder)) {
            if (!threads.contains(std::stoi(entry.path().filename()))) gone.push_back(entry.path());
        }
        for (const auto& path : gone) std::filesystem::remove_all(path);
    }
    ResourceUsage usageOf(std::int32_t pid) {
        EXPECT_EQ(table_.freeze(), 0);
        const auto place = table_.find(pid);
        EXPECT_GE(place, 0);
        return place < 0 ? ResourceUsage{} : table_.usage(static_cast<std::size_t>(place));
    }

    static std::optional<std::uint64_t> fakeClock(std::int32_t pid) {
        const auto found = clocks_.find(pid);
        if (found == clocks_.end()) return std::nullopt;
        return found->second;
    }
    static std::optional<ProcfsSource::Scheduling> fakeScheduling(std::int32_t tid) {
        const auto found = schedulings_.find(tid);
        if (found == schedulings_.end()) return std::nullopt;
        return found->second;
    }

    tests::TemporaryFolder proc_;
    static constexpr ProcfsSource::Calls kCalls{fakeClock, fakeScheduling};
    static std::vector<std::unique_ptr<ProcessSource>> sources(const std::string& root) {
        std::vector<std::unique_ptr<ProcessSource>> sources;
        sources.push_back(std::make_unique<ProcfsSource>(root, kCalls));
        return sources;
    }
    ProcessTable table_{sources(proc_.path()), nullptr};
    ProcfsSource source_{proc_.path(), kCalls};
    ProcessSamples samples_;

private:
    static void writeStat(const std::string& folder, std::int32_t id, const Thread& thread, std::size_t threads) {
        tests::writeWholeFile(folder + "/stat", std::to_string(id) + " (x) S 1 1 1 0 -1 4194304 1 0 9 0 1 1 0 0 20 " +
                                                    std::to_string(thread.nice) + " " + std::to_string(threads) +
                                                    " 0 " + std::to_string(thread.start) +
                                                    " 1 1 1 1 1 1 1 1 0 0 0 0 0 0 0 17 0 0 " +
                                                    std::to_string(thread.policy) + " 0 0 0\n");
        tests::writeWholeFile(folder + "/schedstat", std::to_string(thread.runtimeNs) + " 0 1\n");
    }
    static inline std::map<std::int32_t, std::uint64_t> clocks_;
    static inline std::map<std::int32_t, ProcfsSource::Scheduling> schedulings_;
};

constexpr std::uint64_t kMsNs = 1'000'000;
constexpr std::uint64_t kMsTicks = 24'000;

TEST_F(FakeProcfsTest, GivesEachField) {
    writeProcess(7, 10 * kMsNs, {{7, {.nice = 5, .runtimeNs = 10 * kMsNs}}});
    const ResourceUsage usage = usageOf(7);
    EXPECT_EQ(usage.userTime + usage.systemTime, 10 * kMsTicks);
    EXPECT_EQ(usage.utilityTime, 10 * kMsTicks);
    EXPECT_EQ(usage.pageIns, 9u);
    EXPECT_EQ(usage.wiredSize, 12u * 1024);
    EXPECT_EQ(usage.residentSize, 100u * 1024);
    EXPECT_EQ(usage.physicalFootprint, 62u * 1024);
    EXPECT_EQ(usage.diskBytesRead, 4096u);
    EXPECT_EQ(usage.diskBytesWritten, 8192u);
    EXPECT_EQ(usage.startTime, 24'000'000u);
    EXPECT_EQ(usage.uuid, (std::array<std::uint8_t, 16>{}));
}

TEST_F(FakeProcfsTest, AThreadThatExitsLeavesItsTimeBehind) {
    writeProcess(7, 30 * kMsNs, {{7, {.runtimeNs = 10 * kMsNs}}, {8, {.nice = 19, .runtimeNs = 20 * kMsNs}}});
    EXPECT_EQ(usageOf(7).maintenanceTime, 20 * kMsTicks);
    writeProcess(7, 35 * kMsNs, {{7, {.runtimeNs = 11 * kMsNs}}});
    const ResourceUsage usage = usageOf(7);
    EXPECT_EQ(usage.maintenanceTime, 20 * kMsTicks);
    EXPECT_EQ(usage.unspecifiedTime, 4 * kMsTicks);
    EXPECT_EQ(usage.legacyTime, 11 * kMsTicks);
}

TEST_F(FakeProcfsTest, AReusedProcessIdStartsAnew) {
    writeProcess(7, 30 * kMsNs, {{7, {.runtimeNs = 30 * kMsNs}}});
    usageOf(7);
    writeProcess(7, 2 * kMsNs, {{7, {.nice = -5, .runtimeNs = 2 * kMsNs, .start = 200}}});
    const ResourceUsage usage = usageOf(7);
    EXPECT_EQ(usage.legacyTime, 0u);
    EXPECT_EQ(usage.userInitiatedTime, 2 * kMsTicks);
}

TEST_F(FakeProcfsTest, FilesThatAreMissingCountAsZeros) {
    writeProcess(7, kMsNs, {{7, {.runtimeNs = kMsNs}}});
    for (const char* const file : {"/io", "/status", "/schedstat"}) std::filesystem::remove(proc_.path("7") + file);
    const ResourceUsage usage = usageOf(7);
    EXPECT_EQ(usage.diskBytesRead, 0u);
    EXPECT_EQ(usage.residentSize, 0u);
    EXPECT_EQ(usage.unspecifiedTime, kMsTicks);
}

TEST_F(FakeProcfsTest, AProcessWithoutItsStatIsLeftOut) {
    writeProcess(7, kMsNs, {{7, {}}});
    writeProcess(9, kMsNs, {{9, {}}});
    std::filesystem::remove(proc_.path("7/stat"));
    usageOf(9);
    EXPECT_EQ(table_.find(7), -1);
    EXPECT_EQ(table_.processes().size(), 1u);
}

TEST_F(FakeProcfsTest, NamesThatAreNoNumbersAreNoProcesses) {
    for (const char* const name : {"self", "7x", "-3", "0", "99999999999"}) {
        std::filesystem::create_directory(proc_.path(name));
    }
    EXPECT_EQ(table_.freeze(), 0);
    EXPECT_TRUE(table_.processes().empty());
}

// What is read again is seen by what is missing in the files by then.
TEST_F(FakeProcfsTest, OfAProcessThatRestedOnlySizesAndSchedulingAreReadAgain) {
    writeProcess(7, 30 * kMsNs, {{7, {.runtimeNs = 10 * kMsNs}}, {8, {.runtimeNs = 20 * kMsNs}}});
    for (const std::int32_t tid : {7, 8}) tellScheduling(tid, {.policy = 0, .nice = 0});
    const ProcessSample before = readOne();
    for (const char* const file : {"7/stat", "7/io", "7/task/7/schedstat", "7/task/8/stat"}) remove(file);
    tests::writeWholeFile(proc_.path("7/status"), "Name:\tx\nVmLck:\t 0 kB\nVmRSS:\t 80 kB\nVmSwap:\t 22 kB\n");
    tellScheduling(8, {.policy = 0, .nice = 12});
    const ProcessSample& after = readOne();
    EXPECT_EQ(after.majorFaults, before.majorFaults);
    EXPECT_EQ(after.diskBytesRead, 4096u);
    EXPECT_EQ(after.residentBytes, 80u * 1024);
    EXPECT_EQ(after.footprintBytes, 22u * 1024);
    ASSERT_EQ(after.threadCount, 2u);
    EXPECT_EQ(threadOf(8)->runtimeNs, 20 * kMsNs);
    EXPECT_EQ(threadOf(8)->qosClass, QosClass::background);
    EXPECT_EQ(threadOf(7)->qosClass, QosClass::legacy);
}

TEST_F(FakeProcfsTest, ANanosecondOfWorkIsReadAgain) {
    writeProcess(7, 10 * kMsNs, {{7, {.runtimeNs = 10 * kMsNs}}});
    tellScheduling(7, {.policy = 0, .nice = 0});
    readOne();
    writeProcess(7, 10 * kMsNs + 1, {{7, {.runtimeNs = 10 * kMsNs + 1}}});
    tests::writeWholeFile(proc_.path("7/io"), "read_bytes: 1\nwrite_bytes: 2\n");
    EXPECT_EQ(readOne().diskBytesRead, 1u);
    EXPECT_EQ(threadOf(7)->runtimeNs, 10 * kMsNs + 1);
}

TEST_F(FakeProcfsTest, WithoutSchedulingCallsAllIsReadAgain) {
    writeProcess(7, 30 * kMsNs, {{7, {.runtimeNs = 10 * kMsNs}}, {8, {.runtimeNs = 20 * kMsNs}}});
    readOne();
    writeProcess(7, 30 * kMsNs, {{7, {.runtimeNs = 10 * kMsNs}}, {8, {.nice = 19, .runtimeNs = 20 * kMsNs}}});
    EXPECT_EQ(readOne().threadCount, 2u);
    EXPECT_EQ(threadOf(8)->qosClass, QosClass::maintenance);
}

// The others' files are gone, which nobody notices.
TEST_F(FakeProcfsTest, ThreadsAreReadUntilTheProcessesTimeIsAccountedFor) {
    std::map<std::int32_t, Thread> threads{{7, {.runtimeNs = 10}}, {8, {.runtimeNs = 20}}, {9, {}}};
    writeProcess(7, 60, threads);
    for (const std::int32_t tid : {7, 8, 9}) tellScheduling(tid, {.policy = 0, .nice = 0});
    readOne();
    // In the order of the folder, which is not the kernel's here.
    const auto first = std::filesystem::directory_iterator(proc_.path("7/task"));
    const std::int32_t ran = std::stoi(first->path().filename());
    const std::uint64_t expected = threads[ran].runtimeNs += 3;
    writeProcess(7, 63, threads);
    for (const std::int32_t tid : {7, 8, 9}) {
        if (tid != ran) remove("7/task/" + std::to_string(tid) + "/schedstat");
    }
    ASSERT_EQ(readOne().threadCount, 3u);
    for (const std::int32_t tid : {7, 8, 9}) EXPECT_EQ(threadOf(tid)->runtimeNs, threads[tid].runtimeNs) << tid;
    EXPECT_EQ(threadOf(ran)->runtimeNs, expected);
}

TEST_F(FakeProcfsTest, AThreadThatTookTheOthersPlaceIsFound) {
    writeProcess(7, 30 * kMsNs, {{7, {.runtimeNs = 10 * kMsNs}}, {8, {.runtimeNs = 20 * kMsNs}}});
    for (const std::int32_t tid : {7, 8, 9}) tellScheduling(tid, {.policy = 0, .nice = 0});
    readOne();
    // Thread 8 used another millisecond before it ended, thread 9 has not run yet.
    writeProcess(7, 33 * kMsNs, {{7, {.runtimeNs = 12 * kMsNs}}, {9, {.start = 200}}});
    EXPECT_EQ(readOne().threadCount, 2u);
    EXPECT_EQ(threadOf(8), nullptr);
    ASSERT_TRUE(threadOf(9));
    EXPECT_EQ(threadOf(9)->startUnits, 200u);
    EXPECT_EQ(threadOf(7)->runtimeNs, 12 * kMsNs);
}

TEST_F(FakeProcfsTest, ANewThreadThatHasNotRunIsFoundByTheirNumber) {
    writeProcess(7, 10 * kMsNs, {{7, {.runtimeNs = 5 * kMsNs}}, {8, {.runtimeNs = 5 * kMsNs}}});
    for (const std::int32_t tid : {7, 8, 9}) tellScheduling(tid, {.policy = 0, .nice = 0});
    readOne();
    writeProcess(7, 11 * kMsNs, {{7, {.runtimeNs = 6 * kMsNs}}, {8, {.runtimeNs = 5 * kMsNs}}, {9, {}}});
    EXPECT_EQ(readOne().threadCount, 3u);
    EXPECT_TRUE(threadOf(9));
}

TEST_F(FakeProcfsTest, AThreadIdThatWasReusedHasItsOwnStart) {
    writeProcess(7, 30 * kMsNs, {{7, {.runtimeNs = 10 * kMsNs}}, {8, {.runtimeNs = 20 * kMsNs}}});
    for (const std::int32_t tid : {7, 8}) tellScheduling(tid, {.policy = 0, .nice = 0});
    readOne();
    // Both folders are there for a moment: a file system may give the same inode again at once.
    std::filesystem::rename(proc_.path("7/task/8"), proc_.path("old"));
    writeProcess(7, 40 * kMsNs, {{7, {.runtimeNs = 10 * kMsNs}}, {8, {.runtimeNs = 1 * kMsNs, .start = 300}}});
    readOne();
    EXPECT_EQ(threadOf(8)->startUnits, 300u);
    EXPECT_EQ(threadOf(8)->runtimeNs, 1 * kMsNs);
}

TEST_F(FakeProcfsTest, AReusedProcessIdIsAnotherProcessThoughItsClockStandsTheSame) {
    writeProcess(7, 0, {{7, {}}});
    tellScheduling(7, {.policy = 0, .nice = 0});
    readOne();
    std::filesystem::rename(proc_.path("7"), proc_.path("old"));
    writeProcess(7, 0, {{7, {.start = 300}}});
    EXPECT_EQ(readOne().startUnits, 300u);
}

TEST_F(FakeProcfsTest, FindsInAnyOrder) {
    for (const std::int32_t pid : {3, 10, 200, 7}) writeProcess(pid, 0, {{pid, {}}});
    ASSERT_EQ(table_.freeze(), 0);
    for (const std::int32_t pid : {200, 3, 10, 7, 3, 200}) {
        ASSERT_GE(table_.find(pid), 0) << pid;
        EXPECT_EQ(table_.processes()[static_cast<std::size_t>(table_.find(pid))].pid, pid);
    }
    for (const std::int32_t pid : {0, -1, 4, 201}) EXPECT_EQ(table_.find(pid), -1);
}

}  // namespace
}  // namespace quorvix::linuxos
