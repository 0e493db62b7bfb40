#include "tests/activation/ActivationWorld.h"

namespace quorvix::test {
namespace {

class TrackerLimits : public ActivationWorld {
protected:
    // Without a line kept: only the counts matter here.
    TrackerLimits() {
        for (const LogLevel level : {LogLevel::standard, LogLevel::info, LogLevel::debug}) {
            device.log.setEnabled(level, false);
        }
        device.processes.tasks.clear();
    }
    const AppActivationTracker::Counters& counters() { return tracker().counters(); }
    void beginMany(std::int32_t count) {
        for (std::int32_t pid = 1; pid <= count; ++pid) begin({.pid = pid, .bundleID = "b"});
    }
};

TEST_F(TrackerLimits, KeepsAtMost4096ActivationsOpen) {
    beginMany(4096);
    EXPECT_EQ(open(), 4096u);
    EXPECT_EQ(counters().droppedBegins, 0u);
    begin({.pid = 5000, .bundleID = "b"});
    EXPECT_EQ(open(), 4096u);
    EXPECT_EQ(counters().droppedBegins, 1u);
    end({.pid = 1, .bundleID = "b"});
    begin({.pid = 5000, .bundleID = "b"});
    EXPECT_EQ(open(), 4096u);
    EXPECT_EQ(counters().droppedBegins, 1u);
}

TEST_F(TrackerLimits, TenThousandBeginsWithoutAnEndAreGivenUp) {
    beginMany(10'000);
    EXPECT_EQ(counters().droppedBegins, 5904u);
    advanceMs(60'000);
    EXPECT_EQ(open(), 0u);
    begin();
    EXPECT_EQ(open(), 1u);
}

TEST_F(TrackerLimits, KeepsAtMost4096StepsWaiting) {
    for (int i = 0; i < 4096; ++i) queueEnd({.state = 0});
    EXPECT_EQ(counters().droppedSteps, 0u);
    queueEnd({});
    queueBegin({});
    EXPECT_EQ(counters().droppedSteps, 2u);
    device.scheduler.runPending();
    EXPECT_EQ(sentCount(), 0u);
    end();
    EXPECT_EQ(sentCount(), 1u);
    EXPECT_EQ(counters().droppedSteps, 2u);
}

TEST_F(TrackerLimits, OneSenderHasAtMost512StepsWaiting) {
    for (int i = 0; i < 512; ++i) queueEnd({.state = 0, .sender = 7});
    EXPECT_EQ(counters().droppedSteps, 0u);
    queueEnd({.state = 0, .sender = 7});
    queueBegin({.sender = 7});
    EXPECT_EQ(counters().droppedSteps, 2u);
    queueBegin({.sender = 8});
    queueEnd({.sender = 8});
    device.scheduler.runPending();
    EXPECT_EQ(counters().droppedSteps, 2u);
    EXPECT_EQ(sentCount(), 1u);
    for (int i = 0; i < 512; ++i) queueEnd({.state = 0, .sender = 7});
    EXPECT_EQ(counters().droppedSteps, 2u);
}

TEST_F(TrackerLimits, OneSenderHasAtMost1024TimeOutsPending) {
    for (std::int32_t pid = 1; pid <= 1024; ++pid) begin({.pid = pid, .bundleID = "b", .sender = 7});
    EXPECT_EQ(open(), 1024u);
    begin({.pid = 1025, .bundleID = "b", .sender = 7});
    EXPECT_EQ(open(), 1024u);
    EXPECT_EQ(counters().droppedBegins, 1u);
    begin({.pid = 1025, .bundleID = "b", .sender = 8});
    EXPECT_EQ(open(), 1025u);
    // Ended, but their time-outs are still armed.
    for (std::int32_t pid = 1; pid <= 1024; ++pid) end({.pid = pid, .bundleID = "b", .state = 0, .sender = 9});
    begin({.bundleID = "b", .sender = 7});
    EXPECT_EQ(open(), 1u);
    EXPECT_EQ(counters().droppedBegins, 2u);
    advanceMs(60'000);
    begin({.bundleID = "b", .sender = 7});
    EXPECT_EQ(open(), 1u);
    EXPECT_EQ(counters().droppedBegins, 2u);
}

// The record of a begin that could not be made holds no share of its sender's.
TEST_F(TrackerLimits, ASecondBeginOfAKeyTakesNoShare) {
    begin({.sender = 7});
    for (int i = 0; i < 2000; ++i) begin({.sender = 7});
    EXPECT_EQ(counters().droppedBegins, 0u);
    end({.sender = 7});
    begin({.sender = 7});
    EXPECT_EQ(open(), 1u);
}

TEST_F(TrackerLimits, HoldsAtMost8MiBOfWaitingIdentifiers) {
    const std::string bundleID(64 * 1024, 'x');
    for (int i = 0; i < 128; ++i) queueEnd({.bundleID = bundleID, .state = 0});
    EXPECT_EQ(counters().droppedSteps, 0u);
    queueEnd({.bundleID = "x"});
    EXPECT_EQ(counters().droppedSteps, 1u);
    queueEnd({.bundleID = "", .state = 0});
    EXPECT_EQ(counters().droppedSteps, 1u);
    device.scheduler.runPending();
    end({.bundleID = "x"});
    EXPECT_EQ(sentCount(), 1u);
}

TEST_F(TrackerLimits, OpenActivationsCountTowardsTheIdentifiersHeld) {
    const std::string bundleID(60'000, 'x');
    for (std::int32_t pid = 1; pid <= 100; ++pid) begin({.pid = pid, .bundleID = bundleID});
    EXPECT_EQ(open(), 47u);
    EXPECT_GT(counters().droppedSteps + counters().droppedBegins, 0u);
    advanceMs(60'000);
    begin({.bundleID = bundleID});
    EXPECT_EQ(open(), 1u);
}

TEST_F(TrackerLimits, ABeginThatWaitedFindsWhatWasOpenedMeanwhile) {
    // Each has room while it waits; the first one takes three times its size once it is open.
    const std::string bundleID(std::size_t{3} << 20, 'x');
    queueBegin({.pid = 1, .bundleID = bundleID});
    queueBegin({.pid = 2, .bundleID = bundleID});
    EXPECT_EQ(counters().droppedSteps, 0u);
    device.scheduler.runPending();
    EXPECT_EQ(open(), 1u);
    EXPECT_EQ(counters().droppedBegins, 1u);
}

TEST_F(TrackerLimits, KeepsAtMost16384TimeOutsPending) {
    for (int i = 0; i < 16384; ++i) {
        begin({.bundleID = "b", .type = 0});
        end({.bundleID = "b", .state = 0});
    }
    EXPECT_EQ(counters().droppedBegins, 0u);
    begin();
    EXPECT_EQ(counters().droppedBegins, 1u);
    EXPECT_EQ(open(), 0u);
    advanceMs(60'000);
    begin();
    EXPECT_EQ(open(), 1u);
}

// As long as none has landed, the daily limit lets all of them pass.
TEST_F(TrackerLimits, KeepsAtMost1024ActivationsWaitingForThePowerLog) {
    for (int i = 0; i < 1025; ++i) queueEnd({});
    device.scheduler.runPending();
    EXPECT_EQ(sentCount(), 1024u);
    EXPECT_EQ(recorded(), 1024u);
    EXPECT_EQ(counters().droppedOutputs, 1u);
    settings().maxActivationCount = 2000;
    end();
    EXPECT_EQ(sentCount(), 1025u);
}

TEST_F(TrackerLimits, ActivationsWaitingForThePowerLogCountTowardsTheIdentifiersHeld) {
    const std::string bundleID(60'000, 'x');
    for (int i = 0; i < 100; ++i) queueEnd({.bundleID = bundleID});
    device.scheduler.runPending();
    EXPECT_EQ(counters().droppedSteps, 0u);
    EXPECT_EQ(sentCount() + counters().droppedOutputs, 100u);
    EXPECT_GT(counters().droppedOutputs, 0u);
    const std::size_t before = sentCount();
    end({.bundleID = bundleID});
    EXPECT_EQ(sentCount(), before + 1);
}

TEST_F(TrackerLimits, SnapshotsOfOpenActivationsStayBelow64MiB) {
    device.processes.tasks.assign(5000, {.pid = 1, .name = "x"});
    device.processes.faults.failAlways("resourceUsage", {ESRCH});  // quick: only the memory matters
    constexpr std::size_t kSnapshot = 5000 * sizeof(task_statistics);
    constexpr std::size_t kFitting = (SnapshotMemory::kMaximumBytes - 20'000) / kSnapshot;
    beginMany(static_cast<std::int32_t>(kFitting));
    EXPECT_EQ(perfState().memory.usedBytes(), kFitting * kSnapshot);
    EXPECT_EQ(perfState().memory.refusals(), 0u);
    device.log.setEnabled(LogLevel::standard, true);
    begin({.pid = 10'000});
    EXPECT_EQ(perfState().memory.usedBytes(), kFitting * kSnapshot);
    EXPECT_EQ(perfState().memory.refusals(), 1u);
    EXPECT_TRUE(hasText("QXActivationStats: get_cpu_stats: Failed to allocate memory for tasks\n"));
    EXPECT_EQ(open(), kFitting + 1);
    device.log.setEnabled(LogLevel::standard, false);
    advanceMs(60'000);
    EXPECT_EQ(perfState().memory.usedBytes(), 0u);
}

// What a rendering makes of two snapshots counts as well, so that it is refused where there is no room for it.
TEST_F(TrackerLimits, TheDifferenceOfTwoSnapshotsCountsTowardsTheirMemory) {
    device.processes.tasks.assign(100, {.pid = 1, .name = "x"});
    constexpr std::size_t kSnapshot = 100 * sizeof(task_statistics);
    // Two snapshots, their difference, and the positions that sort it.
    constexpr std::size_t kNeeded = 4 * kSnapshot + 100 * 2 * sizeof(std::uint32_t);
    device.log.setEnabled(LogLevel::standard, true);
    for (const std::size_t maximum : {kNeeded, kNeeded - 1}) {
        perfState().memory.setMaximumBytes(maximum);
        begin({.bundleID = std::to_string(maximum)});
        device.log.clear();
        end({.bundleID = std::to_string(maximum)});
        EXPECT_EQ(hasText("QXActivationStats: delta_cpu_statistics: Failed to allocate memory for tasks\n"),
                  maximum != kNeeded);
        EXPECT_EQ(perfState().memory.usedBytes(), 0u);
    }
    EXPECT_EQ(sentCount(), 2u);
    EXPECT_EQ(sent("CPUStatistics").back(), "{}");
    EXPECT_EQ(perfState().memory.refusals(), 1u);
}

}  // namespace
}  // namespace quorvix::test
