#include "tests/activation/ActivationWorld.h"

namespace quorvix::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using Event = sim::SimSignposts::Event;

// The stored texts, built from their parts: 38 blanks stand between the fields.
const std::string kBlanks(38, ' ');
const std::string kBeginFormat = "appLaunch processBundleId=%{signpost.telemetry:string1}s";
const std::string kEndFormat = kBeginFormat + kBlanks + "appCPUTimeInMs=%{signpost.telemetry:number1}llu" + kBlanks +
                               "appIOInKB=%{signpost.telemetry:number2}llu";
const std::string kTelemetryFormat = kEndFormat + "enableTelemetry=YES";

Event beginOf(std::uint32_t pid) {
    return {.begin = true,
            .identifier = pid,
            .name = "appLaunch",
            .format = kBeginFormat,
            .string1 = "com.norvane.mail",
            .number1 = std::nullopt,
            .number2 = std::nullopt};
}
Event endOf(std::uint32_t pid, const std::string& format, std::uint64_t cpuMs, std::uint64_t kilobytes) {
    return {.begin = false,
            .identifier = pid,
            .name = "appLaunch",
            .format = format,
            .string1 = "com.norvane.mail",
            .number1 = cpuMs,
            .number2 = kilobytes};
}

class LaunchSignposts : public ActivationWorld {
protected:
    LaunchSignposts() {
        settings().internalBuild = true;
        device.signposts.setEnabled(true);
        (void)tracker();
        device.log.clear();
    }
    ResourceUsage& usageOfApp() { return device.processes.tasks.back().usage; }
    const std::vector<Event>& events() { return device.signposts.events(); }
    // The signpost log's lines.
    Lines signpostLines() {
        Lines found;
        for (const std::string& line : lines()) {
            if (line.starts_with("appLaunch ")) found.push_back(line);
        }
        return found;
    }
    void launch(std::int32_t pid = kPid) {
        begin({.pid = pid});
        end({.pid = pid});
    }
};

TEST_F(LaunchSignposts, ALaunchIsAnInterval) {
    launch();
    EXPECT_THAT(events(), ElementsAre(beginOf(412), endOf(412, kTelemetryFormat, 0, 0)));
    EXPECT_THAT(signpostLines(), ElementsAre("appLaunch debug: vexStartLatencyInMs 0 ms",
                                             "appLaunch info: appLaunch interval began for com.norvane.mail",
                                             "appLaunch debug: vexEndLatencyInMs 0 ms",
                                             "appLaunch info: appLaunch interval ended for com.norvane.mail",
                                             "appLaunch info: stats for processBundleId: com.norvane.mail",
                                             "appLaunch info: -----------------------------",
                                             "appLaunch info: appCPUTimeInMs:0  appIOInKB: 0"));
    for (const auto& line : device.log.lines()) {
        const bool ofSignposts = line.subsystem == "com.norvane.quorvix.signposts";
        EXPECT_EQ(ofSignposts, line.category == "appLaunch");
    }
}

TEST_F(LaunchSignposts, TellWhatTheAppUsed) {
    begin();
    usageOfApp().userTime = 300;
    usageOfApp().systemTime = 45;
    usageOfApp().diskBytesRead = 3'500'000;
    usageOfApp().diskBytesWritten = 600;
    end();
    EXPECT_EQ(events().back(), endOf(412, kTelemetryFormat, 345, 3500));
    EXPECT_EQ(signpostLines().back(), "appLaunch info: appCPUTimeInMs:345  appIOInKB: 3500");
}

TEST_F(LaunchSignposts, KilobytesAreThousandsCutFromTheSum) {
    begin();
    usageOfApp().diskBytesRead = 999;
    usageOfApp().diskBytesWritten = 1;
    end();
    EXPECT_EQ(events().back().number2, 1u);
}

TEST_F(LaunchSignposts, TheSumsWrap) {
    begin();
    usageOfApp().userTime = ~std::uint64_t{0};
    usageOfApp().systemTime = 8;
    end();
    EXPECT_EQ(events().back().number1, 7u);
}

// Twice in the list of pids: alive and new in the difference, of which the heavier comes first.
TEST_F(LaunchSignposts, TheFirstEntryOfThePidCounts) {
    usageOfApp().userTime = 100;
    begin();
    device.processes.tasks.push_back(device.processes.tasks.back());
    for (auto& task : device.processes.tasks) task.usage.userTime = 300;
    end();
    EXPECT_EQ(events().back().number1, 300u);
}

TEST_F(LaunchSignposts, AnAppThatDiedMeanwhileUsedNothing) {
    usageOfApp().userTime = 300;
    begin();
    device.processes.tasks.pop_back();
    end();
    EXPECT_EQ(events().back(), endOf(412, kTelemetryFormat, 0, 0));
    EXPECT_EQ(signpostLines().back(), "appLaunch info: appCPUTimeInMs:0  appIOInKB: 0");
}

TEST_F(LaunchSignposts, AnAppInNeitherSnapshotUsedNothing) {
    launch(999);
    EXPECT_EQ(events().back(), endOf(999, kTelemetryFormat, 0, 0));
}

TEST_F(LaunchSignposts, WithoutSnapshotsNothingWasUsed) {
    device.processes.faults.failAlways("listAllPids", {EIO});
    launch();
    EXPECT_EQ(events().back(), endOf(412, kTelemetryFormat, 0, 0));
    EXPECT_TRUE(hasText("QXActivationStats: delta_cpu_statistics: Empty start or end CPU stats\n"));
}

TEST_F(LaunchSignposts, WithoutMemoryForSnapshotsNothingWasUsed) {
    perfState().memory.setMaximumBytes(0);
    launch();
    EXPECT_EQ(events().back(), endOf(412, kTelemetryFormat, 0, 0));
}

TEST_F(LaunchSignposts, NothingOnADeviceThatIsNotInternal) {
    settings().internalBuild = false;
    launch();
    begin();
    advanceMs(60'000);
    EXPECT_THAT(events(), IsEmpty());
    EXPECT_THAT(signpostLines(),
                ElementsAre("appLaunch debug: vexStartLatencyInMs 0 ms", "appLaunch debug: vexEndLatencyInMs 0 ms",
                            "appLaunch debug: vexStartLatencyInMs 0 ms"));
}

TEST_F(LaunchSignposts, LinesWithoutEventsWhereNoneAreRecorded) {
    device.signposts.setEnabled(false);
    launch();
    EXPECT_THAT(events(), IsEmpty());
    EXPECT_EQ(signpostLines().size(), 7u);
}

TEST_F(LaunchSignposts, EventsWithoutLinesWhereInfoIsOff) {
    device.log.setEnabled(LogLevel::info, false);
    launch();
    EXPECT_EQ(events().size(), 2u);
    EXPECT_EQ(signpostLines().size(), 2u);
}

TEST_F(LaunchSignposts, ThePidsZeroAndMinusOneAreNoIntervals) {
    for (const std::int32_t pid : {0, -1}) {
        device.log.clear();
        launch(pid);
        EXPECT_EQ(signpostLines().size(), 7u);
        begin({.pid = pid});
    }
    device.log.clear();
    advanceMs(60'000);
    EXPECT_EQ(open(), 0u);
    EXPECT_THAT(events(), IsEmpty());
    EXPECT_THAT(signpostLines(), IsEmpty());
}

TEST_F(LaunchSignposts, AnyOtherPidIsAnInterval) {
    launch(1);
    EXPECT_EQ(events().size(), 2u);
    launch(-2);
    EXPECT_EQ(events().back().identifier, 0xFFFF'FFFEu);
    launch(-2'147'483'647 - 1);
    EXPECT_EQ(events().back().identifier, 0x8000'0000u);
}

TEST_F(LaunchSignposts, AResumeIsNoInterval) {
    begin({.type = 0});
    end();
    EXPECT_THAT(events(), IsEmpty());
    EXPECT_THAT(signpostLines(), IsEmpty());
}

TEST_F(LaunchSignposts, ABeginThatCameLateIsLeftOut) {
    begin({.vexStartTime = kNow - 200});
    EXPECT_THAT(events(), IsEmpty());
    EXPECT_THAT(signpostLines(), ElementsAre("appLaunch debug: vexStartLatencyInMs 200 ms"));
    begin({.pid = 413, .vexStartTime = kNow - 199});
    EXPECT_THAT(events(), ElementsAre(beginOf(413)));
}

TEST_F(LaunchSignposts, AnEndThatCameLateIsLeftOut) {
    begin();
    device.log.clear();
    end({.time = kNow - 200});
    EXPECT_EQ(events().size(), 1u);
    EXPECT_THAT(signpostLines(), ElementsAre("appLaunch debug: vexEndLatencyInMs 200 ms"));
    begin();
    end({.time = kNow - 199});
    EXPECT_EQ(events().size(), 3u);
}

// 2^32 ms late, and one: the low 32 bits are looked at.
TEST_F(LaunchSignposts, LatenciesAreComparedIn32Bits) {
    begin({.vexStartTime = kNow - 0x1'0000'0001});
    EXPECT_THAT(events(), ElementsAre(beginOf(412)));
}

TEST_F(LaunchSignposts, AMessageFromTheFutureIsLeftOut) {
    begin({.vexStartTime = kNow + 1});
    EXPECT_THAT(events(), IsEmpty());
}

TEST_F(LaunchSignposts, ALaunchThatIsGivenUpEndsPlainly) {
    begin();
    usageOfApp().userTime = 300;
    device.log.clear();
    advanceMs(60'000);
    EXPECT_THAT(events(), ElementsAre(beginOf(412), endOf(412, kEndFormat, 0, 0)));
    EXPECT_THAT(signpostLines(), IsEmpty());
}

// It is the open record's type that counts, not that of the begin whose time-out it is.
TEST_F(LaunchSignposts, ALaunchThatAnOlderResumesTimeOutTakesEndsPlainly) {
    begin({.type = 0});
    end();
    advanceMs(40'000);
    begin({.time = kNow + 40'000, .vexStartTime = kNow + 40'000, .type = 1});
    advanceMs(20'000);
    EXPECT_EQ(events().back(), endOf(412, kEndFormat, 0, 0));
}

TEST_F(LaunchSignposts, AResumeThatAnOlderLaunchsTimeOutTakesEndsNothing) {
    launch();
    advanceMs(40'000);
    begin({.time = kNow + 40'000, .vexStartTime = kNow + 40'000, .type = 0});
    const auto before = events().size();
    advanceMs(20'000);
    EXPECT_EQ(open(), 0u);
    EXPECT_EQ(events().size(), before);
}

TEST_F(LaunchSignposts, AResumeThatIsGivenUpEndsNothing) {
    begin({.type = 2});
    advanceMs(60'000);
    EXPECT_THAT(events(), IsEmpty());
}

TEST_F(LaunchSignposts, AnEndAloneEndsNothing) {
    end();
    EXPECT_THAT(events(), IsEmpty());
}

}  // namespace
}  // namespace quorvix::test
