#include "tests/activation/ActivationWorld.h"

namespace quorvix::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint64_t kMaximum = 18'446'744'073'709'551'615u;

class Record : public ActivationWorld {
protected:
    struct Arguments {
        std::uint8_t type = 0;
        std::int32_t pid = kPid;
        std::string bundleID = kBundle;
        std::uint64_t time = kNow;
        std::uint64_t vexStartTime = kNow;
        std::uint8_t state = 1;
        std::uint8_t activationType = 1;
    };
    static std::shared_ptr<AppActivation> made(const Arguments& a) {
        return AppActivation::initWithStatisticsType(a.type, a.pid, a.bundleID, a.time, a.vexStartTime, a.state,
                                                     a.activationType);
    }
    static std::shared_ptr<AppActivation> made() { return made(Arguments{}); }
    static std::uint64_t startSlot(const AppActivation& record) { return record.appActivationFlags() >> 8 & 31; }
    static std::uint64_t endSlot(const AppActivation& record) { return record.appActivationFlags() >> 13 & 31; }
};

TEST_F(Record, HoldsWhatTheBeginSaid) {
    const auto record = made({.type = 7,
                              .pid = 413,
                              .bundleID = "com.norvane.maps",
                              .time = kNow - 40,
                              .vexStartTime = kNow - 30,
                              .state = 9,
                              .activationType = 200});
    EXPECT_EQ(record->snapshotTypesToRecord(), 7);
    EXPECT_EQ(record->pid(), 413);
    EXPECT_EQ(record->bundleID(), "com.norvane.maps");
    EXPECT_EQ(record->startTimestamp(), kNow - 40);
    EXPECT_EQ(record->vexStartLatencyInMs(), 30u);
    EXPECT_EQ(record->appActivationStartState(), 9);
    EXPECT_EQ(record->appActivationType(), 200);
    EXPECT_EQ(record->appActivationSource(), 0);
}

TEST_F(Record, IsNotEndedAtFirst) {
    const auto record = made({.type = 7});
    EXPECT_EQ(record->appActivationResult(), 0);
    EXPECT_EQ(record->wallTime(), 0u);
    EXPECT_EQ(record->vexEndLatencyInMs(), 0u);
    EXPECT_TRUE(record->startSnapshot());
    EXPECT_FALSE(record->endSnapshot());
}

TEST_F(Record, CountsTimeFrom2001) { EXPECT_EQ(activationTimeNow(), kNow); }

TEST_F(Record, TimeBefore2001IsZero) {
    device.scheduler.setWallClock(WallTime(std::chrono::seconds(978'307'199)));
    EXPECT_EQ(activationTimeNow(), 0u);
}

TEST_F(Record, TellsEachLatencyAndWhatItPacks) {
    const auto record = made({.vexStartTime = kNow - 120});
    record->activationEndedWithResult(4, kNow - 5000);
    EXPECT_THAT(lines(),
                ElementsAre("debug: QXActivationStats: Value to insert:2 Output Value:200 MaxValue:1f Index:8",
                            "debug: QXActivationStats: Latency to get start message:120 ms",
                            "debug: QXActivationStats: Value to insert:1f Output Value:3e200 MaxValue:1f Index:13",
                            "debug: QXActivationStats: Latency to get end message:5000 ms"));
    EXPECT_EQ(record->vexStartLatencyInMs(), 120u);
    EXPECT_EQ(startSlot(*record), 2u);
    EXPECT_EQ(record->vexEndLatencyInMs(), 5000u);
    EXPECT_EQ(endSlot(*record), 31u);
    EXPECT_EQ(record->appActivationResult(), 4);
}

TEST_F(Record, WithoutAStartTimeStartsNow) {
    EXPECT_EQ(made({.time = 0})->startTimestamp(), kNow);
    EXPECT_EQ(lines().front(), "default: QXActivationStats: We got no Start time for the activation");
}

TEST_F(Record, WithAStartTimeSaysNothingAboutIt) {
    EXPECT_EQ(made({.time = 1})->startTimestamp(), 1u);
    EXPECT_EQ(lineWith("default:"), "");
}

TEST_F(Record, WithoutAnEndTimeEndsNowAndHasNoLatency) {
    const auto record = made({.time = kNow - 750});
    device.log.clear();
    record->activationEndedWithResult(0, 0);
    EXPECT_EQ(record->wallTime(), 750u);
    EXPECT_EQ(record->vexEndLatencyInMs(), 0u);
    EXPECT_EQ(lines().front(), "default: QXActivationStats: We got no End time for the activation");
}

TEST_F(Record, BearsTheNameOfProcessZeroAndNotItsOwn) { EXPECT_EQ(made()->processName(), "kernel"); }

TEST_F(Record, HasNoNameWhereProcessZeroHasNone) {
    device.processes.tasks = {{.pid = kPid, .name = "Mail"}};
    EXPECT_EQ(made()->processName(), "");
    EXPECT_EQ(lineWith("default:"), "");
}

TEST_F(Record, ReadsTheNameAsASCIIAndAtMost31Characters) {
    device.processes.tasks = {{.pid = 0, .name = "n\xc3\xa9" + std::string(40, 'x')}};
    EXPECT_EQ(made()->processName(), "n??" + std::string(28, 'x'));
}

struct Latency {
    std::uint64_t ms;
    std::uint64_t slot;
};
class LatencySlot : public Record, public ::testing::WithParamInterface<Latency> {};

TEST_P(LatencySlot, CountsFiftyMillisecondsAndSaturates) {
    const auto record = made({.vexStartTime = kNow - GetParam().ms});
    record->activationEndedWithResult(0, kNow - GetParam().ms);
    EXPECT_EQ(startSlot(*record), GetParam().slot);
    EXPECT_EQ(endSlot(*record), GetParam().slot);
    EXPECT_EQ(record->appActivationFlags(), GetParam().slot << 8 | GetParam().slot << 13);
}

INSTANTIATE_TEST_SUITE_P(Each, LatencySlot,
                         ::testing::Values(Latency{0, 0}, Latency{49, 0}, Latency{50, 1}, Latency{199, 3},
                                           Latency{200, 4}, Latency{1549, 30}, Latency{1550, 31}, Latency{1600, 31},
                                           Latency{1'000'000, 31}));

TEST_F(Record, AMessageFromTheFutureIsHugelyLate) {
    const auto record = made({.vexStartTime = kNow + 1});
    EXPECT_EQ(record->vexStartLatencyInMs(), 0xFFFF'FFFFu);
    EXPECT_EQ(startSlot(*record), 31u);
    EXPECT_TRUE(hasLine("debug: QXActivationStats: Latency to get start message:18446744073709551615 ms"));
}

TEST_F(Record, AMessageOfTimeZeroIsHugelyLate) {
    const auto record = made({.vexStartTime = 0});
    EXPECT_EQ(record->vexStartLatencyInMs(), static_cast<std::uint32_t>(kNow));
    EXPECT_EQ(startSlot(*record), 31u);
}

TEST_F(Record, TheLargestTimesWrap) {
    const auto record = made({.time = kMaximum, .vexStartTime = kMaximum});
    EXPECT_EQ(record->vexStartLatencyInMs(), static_cast<std::uint32_t>(kNow + 1));
    EXPECT_EQ(record->appActivationID() >> 32, 0xFFFF'FFFFu);
    record->activationEndedWithResult(0, 4);
    EXPECT_EQ(record->wallTime(), 5u);
    record->activationEndedWithResult(0, kMaximum);
    EXPECT_EQ(record->wallTime(), 0u);
    EXPECT_EQ(record->vexEndLatencyInMs(), static_cast<std::uint32_t>(kNow + 1));
}

TEST_F(Record, AnEndInTheFutureIsHugelyLate) {
    const auto record = made();
    record->activationEndedWithResult(0, kNow + 1);
    EXPECT_EQ(record->vexEndLatencyInMs(), 0xFFFF'FFFFu);
    EXPECT_EQ(endSlot(*record), 31u);
}

TEST_F(Record, DurationIsOfTheLow32Bits) {
    const auto record = made({.time = 1000});
    record->activationEndedWithResult(0, 1750);
    EXPECT_EQ(record->wallTime(), 750u);
    record->activationEndedWithResult(0, 999);
    EXPECT_EQ(record->wallTime(), 0xFFFF'FFFFu);
    record->activationEndedWithResult(0, 0x5'0000'0000 + 1001);
    EXPECT_EQ(record->wallTime(), 1u);
}

// The bundle's hash is 0x5dfdf45c338ea044.
TEST_F(Record, IdentifierHoldsTimeBundleAndPid) {
    EXPECT_EQ(made({.pid = 412, .time = 0x12'3456'789A})->appActivationID(), 0x3456'789A'A044'019Cu);
}

TEST_F(Record, IdentifierHoldsTheLow16BitsOfThePid) {
    EXPECT_EQ(made({.pid = 70000})->appActivationID() & 0xFFFF, 0x1170u);
    EXPECT_EQ(made({.pid = -1, .time = 5})->appActivationID(), 0x0000'0005'A044'FFFFu);
    EXPECT_EQ(made({.pid = 0, .bundleID = "", .time = 5})->appActivationID(), 0x0000'0005'2325'0000u);
}

TEST_F(Record, EndingTwiceOverwritesTheEndAndMixesTheLatencies) {
    const auto record = made({.type = 1, .time = kNow - 1000});
    record->activationEndedWithResult(1, kNow - 50);
    const PerfSnapshot* const first = record->endSnapshot();
    ASSERT_TRUE(first);
    device.processes.tasks.pop_back();
    record->activationEndedWithResult(2, kNow - 100);
    EXPECT_EQ(endSlot(*record), 3u);
    EXPECT_EQ(record->vexEndLatencyInMs(), 100u);
    EXPECT_EQ(record->wallTime(), 900u);
    EXPECT_EQ(record->appActivationResult(), 2);
    EXPECT_EQ(record->endSnapshot()->cpu_stats()->count, 1);
}

TEST_F(Record, UptimeIsSinceTheBoot) { EXPECT_EQ(made()->systemUptime(), 1000); }

TEST_F(Record, UptimeIsInWholeSeconds) {
    advanceMs(999);
    EXPECT_EQ(made()->systemUptime(), 1000);
    advanceMs(1);
    EXPECT_EQ(made()->systemUptime(), 1001);
}

TEST_F(Record, UptimeIsZeroWithoutABootTime) {
    device.host.faults.failNext("bootTimeSeconds", {EPERM});
    EXPECT_EQ(made()->systemUptime(), 0);
    device.host.bootTime = 0;
    EXPECT_EQ(made()->systemUptime(), 0);
}

TEST_F(Record, UptimeIsSigned) {
    device.host.bootTime = 1768478400 + 5;
    EXPECT_EQ(made()->systemUptime(), -5);
}

TEST_F(Record, SnapshotsHoldWhatTheTypeAsksFor) {
    for (const std::uint8_t type : std::initializer_list<std::uint8_t>{0, 1, 2, 3, 4, 7, 252}) {
        const auto record = made({.type = type});
        record->activationEndedWithResult(0, kNow);
        for (const PerfSnapshot* const snapshot : {record->startSnapshot(), record->endSnapshot()}) {
            ASSERT_TRUE(snapshot);
            EXPECT_EQ(snapshot->cpu_stats() != nullptr, (type & 1) != 0);
            EXPECT_EQ(snapshot->vm_stats() != nullptr, (type & 2) != 0);
            EXPECT_FALSE(snapshot->power_stats());
        }
    }
}

TEST_F(Record, DoesWithoutSnapshots) {
    perfState().memory.failNth(1);
    const auto record = made({.type = 3});
    EXPECT_FALSE(record->startSnapshot());
    EXPECT_TRUE(hasLine("default: QXActivationStats: get_performance_snapshot: Failed to allocate memory\n"));
    record->activationEndedWithResult(0, kNow);
    for (const std::int32_t output : {0, 1, 2}) record->logAppActivationData(output);
    EXPECT_EQ(sent("CPUStatistics"), (Lines{"{}"}));
}

TEST_F(Record, IsRenderedAsAskedFor) {
    const auto record = made({.type = 2});
    record->activationEndedWithResult(0, kNow);
    device.log.clear();
    record->logAppActivationData(0);
    EXPECT_FALSE(device.console.printed().empty());
    EXPECT_THAT(lines(), IsEmpty());
    record->logAppActivationData(1);
    EXPECT_NE(lineWith("debug: QXActivationStats: Output "), "");
    EXPECT_THAT(device.powerLog.events(), IsEmpty());
    record->logAppActivationData(2);
    EXPECT_EQ(device.powerLog.events().size(), 4u);
}

TEST_F(Record, AnyOtherRenderingIsNone) {
    const auto record = made({.type = 7});
    record->activationEndedWithResult(0, kNow);
    device.log.clear();
    for (const std::int32_t output : {3, -1, 256, 1 << 30}) record->logAppActivationData(output);
    EXPECT_THAT(lines(), IsEmpty());
    EXPECT_THAT(device.powerLog.events(), IsEmpty());
    EXPECT_EQ(device.console.printed(), "");
    EXPECT_THAT(device.console.logged(), IsEmpty());
}

}  // namespace
}  // namespace quorvix::test
