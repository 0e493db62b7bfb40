#include "perfstats/PerfSnapshot.h"

#include "perfstats/PerfStatsProcess.h"
#include "tests/activation/ActivationWorld.h"

namespace quorvix::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class Snapshot : public ActivationWorld {
protected:
    static std::unique_ptr<PerfSnapshot> taken(std::uint8_t options = 1) {
        return PerfSnapshot::createPerformanceSnapshotWithOptions(options);
    }
    static Lines processesOf(const PerfSnapshot& snapshot) {
        Lines found;
        for (std::int32_t i = 0; i < snapshot.cpu_stats()->count; ++i) {
            const task_statistics& task = snapshot.cpu_stats()->tasks[static_cast<std::size_t>(i)];
            EXPECT_EQ(task.lifecycleState, kTaskAlive);
            found.push_back(std::to_string(task.pid) + " " + task.name);
        }
        return found;
    }
};

TEST_F(Snapshot, HoldsWhatTheOptionBitsAskFor) {
    for (int options = 0; options < 256; ++options) {
        const auto snapshot = taken(static_cast<std::uint8_t>(options));
        EXPECT_EQ(snapshot->cpu_stats() != nullptr, (options & 1) != 0);
        EXPECT_EQ(snapshot->vm_stats() != nullptr, (options & 2) != 0);
        EXPECT_FALSE(snapshot->power_stats());
    }
    EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(Snapshot, KeepsTheOrderOfThePidList) {
    device.processes.tasks = {{.pid = 9, .name = "nine"}, {.pid = 0, .name = "kernel"}, {.pid = 3, .name = "three"}};
    EXPECT_THAT(processesOf(*taken()), ElementsAre("9 nine", "0 kernel", "3 three"));
}

TEST_F(Snapshot, HoldsEveryCounterOfAProcess) {
    ResourceUsage& usage = device.processes.tasks[1].usage;
    usage.uuid[15] = 7;
    usage.userTime = 11;
    usage.servicedSystemTime = 99;
    const auto snapshot = taken();
    EXPECT_EQ(std::memcmp(&snapshot->cpu_stats()->tasks[1].usage, &usage, sizeof usage), 0);
}

TEST_F(Snapshot, KeepsOneOfSeveralZeroPids) {
    device.processes.tasks = {{.pid = 0, .name = "kernel"},
                              {.pid = 7, .name = "a"},
                              {.pid = 0, .name = ""},
                              {.pid = 0, .name = ""},
                              {.pid = 0, .name = ""}};
    EXPECT_THAT(processesOf(*taken()), ElementsAre("0 kernel", "7 a"));
    EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(Snapshot, AZeroPidWhoseUsageFailsIsNotTriedAgain) {
    device.processes.tasks = {
        {.pid = 0, .name = "", .usageFails = true}, {.pid = 7, .name = "a"}, {.pid = 0, .name = ""}};
    EXPECT_THAT(processesOf(*taken()), ElementsAre("7 a"));
    EXPECT_EQ(lines().size(), 1u);
}

TEST_F(Snapshot, LeavesOutAProcessThatIsGone) {
    device.processes.tasks = {
        {.pid = 5, .name = "a"}, {.pid = 6, .name = "b", .usageFails = true}, {.pid = 7, .name = "c"}};
    EXPECT_THAT(processesOf(*taken()), ElementsAre("5 a", "7 c"));
    EXPECT_THAT(lines(), ElementsAre("default: QXActivationStats: ** Failed to get rusage info for pid 6 error:No such "
                                     "process number:3 **"));
}

TEST_F(Snapshot, DoesNotCountTheLastSlotOfAProcessThatIsGone) {
    device.processes.tasks = {{.pid = 5, .name = "a"}, {.pid = 6, .name = "b", .usageFails = true}};
    const auto snapshot = taken();
    EXPECT_THAT(processesOf(*snapshot), ElementsAre("5 a"));
    EXPECT_EQ(snapshot->cpu_stats()->tasks[1].name[0], '^');
}

TEST_F(Snapshot, OfProcessesThatAreAllGoneIsEmptyAndThere) {
    device.processes.faults.failAlways("resourceUsage", {EPERM});
    const auto snapshot = taken();
    ASSERT_TRUE(snapshot->cpu_stats());
    EXPECT_EQ(snapshot->cpu_stats()->count, 0);
    EXPECT_EQ(lines().back(),
              "default: QXActivationStats: ** Failed to get rusage info for pid 412 error:Operation not "
              "permitted number:1 **");
}

TEST_F(Snapshot, KeepsAProcessWithoutANameUnnamed) {
    device.processes.tasks = {{.pid = 5, .name = ""}, {.pid = 6, .name = "b"}};
    EXPECT_THAT(processesOf(*taken()), ElementsAre("5 ", "6 b"));
    EXPECT_THAT(lines(),
                ElementsAre("default: QXActivationStats: ** Process name not found for pid 5 error:No such process**"));
}

TEST_F(Snapshot, NamesHave31Characters) {
    device.processes.tasks = {{.pid = 5, .name = std::string(40, 'x')}};
    EXPECT_THAT(processesOf(*taken()), ElementsAre("5 " + std::string(31, 'x')));
}

TEST_F(Snapshot, WithoutAPidListHasNoProcesses) {
    device.processes.faults.failNext("listAllPids", {EIO});
    EXPECT_FALSE(taken()->cpu_stats());
    EXPECT_THAT(lines(),
                ElementsAre("default: QXActivationStats: get_cpu_stats: Process count returned less than zero\n"));
}

TEST_F(Snapshot, OfNoProcessesAtAllHasNone) {
    device.processes.tasks.clear();
    EXPECT_FALSE(taken()->cpu_stats());
    EXPECT_THAT(lines(),
                ElementsAre("default: QXActivationStats: get_cpu_stats: Process count returned less than zero\n"));
}

TEST_F(Snapshot, WithoutThePidsThemselvesHasNoProcesses) {
    device.processes.faults.failNth("listAllPids", 2, {EIO});
    EXPECT_FALSE(taken()->cpu_stats());
    EXPECT_THAT(lines(), ElementsAre("default: get_cpu_stats: Found no processes\n"));
}

TEST_F(Snapshot, OfPidsThatAreAllGoneMeanwhileHasNoProcesses) {
    device.processes.faults.failNth("listAllPids", 2, {0});
    EXPECT_FALSE(taken()->cpu_stats());
    EXPECT_THAT(lines(), ElementsAre("default: get_cpu_stats: Found no processes\n"));
}

struct OutOfMemory {
    std::uint64_t allocation;
    const char* line;
};
class SnapshotOutOfMemory : public Snapshot, public ::testing::WithParamInterface<OutOfMemory> {};

TEST_P(SnapshotOutOfMemory, LeavesThePartOut) {
    perfState().memory.failNth(GetParam().allocation);
    const auto snapshot = taken(3);
    ASSERT_TRUE(snapshot);
    EXPECT_FALSE(snapshot->cpu_stats());
    EXPECT_TRUE(snapshot->vm_stats());
    EXPECT_EQ(lines(), GetParam().line ? Lines{GetParam().line} : Lines{});
    EXPECT_EQ(perfState().memory.usedBytes(), 0u);
    EXPECT_EQ(perfState().memory.refusals(), 1u);
}

INSTANTIATE_TEST_SUITE_P(
    Each, SnapshotOutOfMemory,
    ::testing::Values(OutOfMemory{2, nullptr},
                      OutOfMemory{3, "default: QXActivationStats: get_cpu_stats: Failed to allocate memory for pids\n"},
                      OutOfMemory{4,
                                  "default: QXActivationStats: get_cpu_stats: Failed to allocate memory for tasks\n"}));

TEST_F(Snapshot, IsNoneWithoutMemoryForItself) {
    perfState().memory.failNth(1);
    EXPECT_FALSE(taken(3));
    EXPECT_THAT(lines(),
                ElementsAre("default: QXActivationStats: get_performance_snapshot: Failed to allocate memory\n"));
}

TEST_F(Snapshot, WithoutMemoryForTheHostsFiguresIsWithoutThem) {
    perfState().memory.failNth(5);
    const auto snapshot = taken(3);
    EXPECT_TRUE(snapshot->cpu_stats());
    EXPECT_FALSE(snapshot->vm_stats());
    EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(Snapshot, AsksTheHostFor38Words) {
    device.host.statistics.free_count = 5;
    device.host.statistics.total_uncompressed_pages_in_compressor = 6;
    const auto snapshot = taken(2);
    EXPECT_EQ(snapshot->vm_stats()->free_count, 5u);
    EXPECT_EQ(snapshot->vm_stats()->total_uncompressed_pages_in_compressor, 6u);
    EXPECT_THAT(device.host.counts(), ElementsAre(38u));
}

TEST_F(Snapshot, WithoutTheHostsFiguresKeepsTheProcesses) {
    device.host.faults.failNext("vmStatistics64", {EIO});
    const auto snapshot = taken(3);
    EXPECT_TRUE(snapshot->cpu_stats());
    EXPECT_FALSE(snapshot->vm_stats());
    EXPECT_THAT(lines(),
                ElementsAre("default: QXActivationStats: get_vm_stats: vm_statistics64 failed to get vm stats\n"));
}

TEST_F(Snapshot, GivesItsMemoryBack) {
    {
        const auto snapshot = taken(3);
        EXPECT_EQ(perfState().memory.usedBytes(), 2 * sizeof(task_statistics));
    }
    EXPECT_EQ(perfState().memory.usedBytes(), 0u);
}

class Memory : public ActivationWorld {};

TEST_F(Memory, IsBoundedToTheByte) {
    SnapshotMemory memory;
    EXPECT_TRUE(memory.reserve(SnapshotMemory::kMaximumBytes));
    EXPECT_FALSE(memory.reserve(1));
    EXPECT_TRUE(memory.reserve(0));
    memory.release(SnapshotMemory::kMaximumBytes);
    EXPECT_FALSE(memory.reserve(SnapshotMemory::kMaximumBytes + 1));
    EXPECT_FALSE(memory.reserve(~std::size_t{0}));
    EXPECT_EQ(memory.usedBytes(), 0u);
    EXPECT_EQ(memory.refusals(), 3u);
    EXPECT_TRUE(memory.reserve(1));
}

TEST_F(Memory, IsHeldOnceByAnArrayThatMoves) {
    auto first = SnapshotArray<int>::allocate(10);
    SnapshotArray<int> second = std::move(first);
    EXPECT_EQ(perfState().memory.usedBytes(), 10 * sizeof(int));
    second = SnapshotArray<int>::allocate(3);
    EXPECT_EQ(perfState().memory.usedBytes(), 3 * sizeof(int));
    second.reset();
    EXPECT_EQ(perfState().memory.usedBytes(), 0u);
}

TEST_F(Memory, TicksBecomeMillisecondsTruncated) {
    EXPECT_EQ(perfState().nsPerTick, -1.0);
    EXPECT_EQ(msFromTicks(33), 33u);
    EXPECT_EQ(perfState().nsPerTick, 1'000'000.0);
    perfState().nsPerTick = 125.0 / 3.0;
    EXPECT_EQ(msFromTicks(0), 0u);
    EXPECT_EQ(msFromTicks(23'999), 0u);
    EXPECT_EQ(msFromTicks(24'000'000), 1000u);
    EXPECT_EQ(msFromTicks(~std::uint64_t{0}), 768'614'336'404'564u);
}

// Doubles in the given order: a whole number of milliseconds may fall just below itself.
TEST_F(Memory, SomeMillisecondsShowAsOneLess) {
    perfState().nsPerTick = 125.0 / 3.0;
    EXPECT_EQ(msFromTicks(33 * 24'000), 32u);
    EXPECT_EQ(msFromTicks(32 * 24'000), 32u);
}

class Process : public ActivationWorld {};

// FNV-1a of "Mail" is 0x49e765aed0087b0e.
TEST_F(Process, IdentifierHoldsThePidAndTheLowHalfOfTheHash) {
    EXPECT_EQ(PerfStatsProcess::generateUniqueIDForPID(5, "Mail"), 0xD008'7B0E'0000'0005u);
    EXPECT_EQ(PerfStatsProcess::generateUniqueIDForPID(0, ""), 0x8422'2325'0000'0000u);
    EXPECT_EQ(PerfStatsProcess::generateUniqueIDForPID(0x7FFF'FFFF, "Mail"), 0xD008'7B0E'7FFF'FFFFu);
}

TEST_F(Process, ANegativePidSetsTheUpperHalf) {
    EXPECT_EQ(PerfStatsProcess::generateUniqueIDForPID(-1, "Mail"), ~std::uint64_t{0});
    EXPECT_EQ(PerfStatsProcess::generateUniqueIDForPID(-2, "Mail"), 0xFFFF'FFFF'FFFF'FFFEu);
}

TEST_F(Process, IsNamedInASCII) {
    const auto process = PerfStatsProcess::processWithPID(7, "caf\xc3\xa9\x7f");
    EXPECT_EQ(process.pid(), 7);
    EXPECT_EQ(process.processName(), "caf??\x7f");
    EXPECT_EQ(process.uniqueIdentifier(), PerfStatsProcess::generateUniqueIDForPID(7, "caf??\x7f"));
}

TEST_F(Process, HashesAreTheFixedOnes) {
    EXPECT_EQ(stringHash(""), 0xcbf29ce484222325u);
    EXPECT_EQ(stringHash("a"), 0xaf63dc4c8601ec8cu);
    EXPECT_EQ(stringHash("foobar"), 0x85944171f73967e8u);
    EXPECT_EQ(stringHash("com.norvane.mail"), 0x5dfdf45c338ea044u);
}

}  // namespace
}  // namespace quorvix::test
