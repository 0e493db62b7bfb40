#include "tests/support/DaemonWorld.h"

namespace quorvix::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using sim::SimMessage;

// An app with the pid 412, connected and not watched, and an empty log.
class Commands : public DaemonWorld {
protected:
    using DaemonWorld::DaemonWorld;
    void SetUp() override {
        startWithHangTracing();
        client = connect(412);
        device.log.clear();
    }
    void send(const SimMessage& message) { DaemonWorld::send(*client, message); }
    void watchIt() {
        send(SimMessage{}.int64("command", 1).sharedMemory("shmem", memory()).string("name", "app"));
        device.log.clear();
    }
    std::shared_ptr<sim::SimSharedMemory> memory(std::uint32_t version = 4) {
        return sim::SimSharedMemory::hangChannel(device.regions, version);
    }
    void expectOnlyLine(std::string_view text, LogLevel level) {
        EXPECT_THAT(texts(), ElementsAre(text));
        EXPECT_EQ(levelOf(text), level);
    }
    // The message's own lines; what the tracker says of the activation comes behind them.
    std::vector<std::string> firstThreeTexts() {
        auto all = texts();
        all.resize(std::min<std::size_t>(all.size(), 3));
        return all;
    }
    static std::uint64_t openActivations() {
        const auto& tracker = activationState().sharedInstance;
        return tracker ? tracker->counters().openActivations.load() : 0;
    }

    std::shared_ptr<sim::SimClient> client;
};

// Which message is dispatched.

class UnknownCommand : public Commands, public ::testing::WithParamInterface<std::int64_t> {};

TEST_P(UnknownCommand, IsNotedWithTheMessage) {
    const auto id = device.messages.nextObjectId();
    send(SimMessage{}.int64("command", GetParam()));
    expectOnlyLine(formatText("Don't know how to handle %p", ObjectId{id}), LogLevel::standard);
}

INSTANTIATE_TEST_SUITE_P(OutsideOfOneToEight, UnknownCommand,
                         ::testing::Values(0, 9, -1, std::numeric_limits<std::int64_t>::min(),
                                           std::numeric_limits<std::int64_t>::max(), 0x1'0000'0002));

TEST_F(Commands, AMessageWithoutACommandIsUnknown) {
    const auto id = device.messages.nextObjectId();
    send({});
    expectOnlyLine(formatText("Don't know how to handle %p", ObjectId{id}), LogLevel::standard);
}

TEST_F(Commands, ACommandOfAnotherTypeIsUnknown) {
    send(SimMessage{}.uint64("command", 6));
    send(SimMessage{}.string("command", "6"));
    send(SimMessage{}.boolean("command", true));
    EXPECT_EQ(texts().size(), 3u);
    for (const auto& text : texts()) EXPECT_TRUE(text.starts_with("Don't know how to handle 0x")) << text;
}

TEST_F(Commands, APidBelowOneIsDroppedWhateverItsCommand) {
    for (std::int64_t command = 0; command <= 9; ++command) {
        DaemonWorld::send(*connect(0), SimMessage{}.int64("command", command));
    }
    EXPECT_EQ(countText("0 is not a valid pid to watch"), 10u);
    EXPECT_EQ(texts().size(), 20u) << "a connection and a refusal each";
    EXPECT_EQ(levelOf("0 is not a valid pid to watch"), LogLevel::info);
}

TEST_F(Commands, ANegativePidIsDroppedToo) {
    DaemonWorld::send(*connect(-7), SimMessage{}.int64("command", 6));
    EXPECT_EQ(texts().back(), "-7 is not a valid pid to watch");
}

TEST_F(Commands, PidOneIsServed) {
    DaemonWorld::send(*connect(1), SimMessage{}.int64("command", 6));
    EXPECT_EQ(texts().back(), "QXFenceTracking: Fence begin");
}

TEST_F(Commands, AreServedWhateverIsSwitchedOff) {
    prefer("QuorvixEnabled", false);
    prefer("QuorvixEnableAppActivationLogging", true, kQuorvixDomain);
    refresh();
    device.log.clear();
    send(SimMessage{}.int64("command", 1).sharedMemory("shmem", memory()).string("name", "app"));
    send(SimMessage{}.int64("command", 3).int64("startTime", 1000).int64("endTime", 7000).string("name", "main"));
    EXPECT_THAT(texts(), ElementsAre("New proc: /Applications/Mail.app/Mail(412)",
                                     "Initialization complete now watching hangs for Mail(412) | app",
                                     "Mail: Hang detected 6.00s (main)"));
}

TEST_F(Commands, ActivationsAreServedWhileTheirLoggingIsOff) {
    send(SimMessage{}.int64("command", 4).string("bundle-id", "com.norvane.mail"));
    EXPECT_EQ(openActivations(), 1u);
}

// 1: start watching.

TEST_F(Commands, StartWatchingNamesTheProcessAndTheClient) {
    send(SimMessage{}.int64("command", 1).sharedMemory("shmem", memory()).string("name", "Mail main thread"));
    EXPECT_THAT(texts(), ElementsAre("New proc: /Applications/Mail.app/Mail(412)",
                                     "Initialization complete now watching hangs for Mail(412) | Mail main thread"));
    EXPECT_EQ(levelOf(texts()[1]), LogLevel::info);
    EXPECT_TRUE(QXProcessInfo::processForPid(412));
}

TEST_F(Commands, StartWatchingWithoutANameSaysNull) {
    send(SimMessage{}.int64("command", 1).sharedMemory("shmem", memory()).int64("name", 5));
    EXPECT_EQ(texts().back(), "Initialization complete now watching hangs for Mail(412) | (null)");
}

TEST_F(Commands, StartWatchingNeedsSharedMemory) {
    send(SimMessage{}.int64("command", 1).string("name", "app"));
    expectOnlyLine("Didn't get shmem from no longer watching 412", LogLevel::standard);
}

TEST_F(Commands, SharedMemoryOfAnotherTypeIsNone) {
    send(SimMessage{}.int64("command", 1).int64("shmem", 3));
    expectOnlyLine("Didn't get shmem from no longer watching 412", LogLevel::standard);
}

TEST_F(Commands, SharedMemoryThatCannotBeMappedIsWrong) {
    send(SimMessage{}
             .int64("command", 1)
             .sharedMemory("shmem", std::make_shared<sim::SimSharedMemory>(device.regions, 0)));
    expectOnlyLine("Something wrong w/shmem", LogLevel::standard);
    EXPECT_EQ(device.regions.unmapCount(), 0u);
}

TEST_F(Commands, AMappingThatFailsIsWrong) {
    device.regions.callFaults().failNext("map", ErrorCode{ENOMEM});
    send(SimMessage{}.int64("command", 1).sharedMemory("shmem", memory()));
    expectOnlyLine("Something wrong w/shmem", LogLevel::standard);
    EXPECT_FALSE(QXProcessInfo::processForPid(412));
}

TEST_F(Commands, ARegionRefusedForASecondWatchIsGivenBackOnce) {
    watchIt();
    send(SimMessage{}.int64("command", 1).sharedMemory("shmem", memory()));
    expectOnlyLine("WARNING: Mail(412) was already being watched.", LogLevel::standard);
    EXPECT_EQ(device.regions.liveMappings(), 1u);
    EXPECT_EQ(device.regions.unmapCount(device.regions.lastMapping().address), 1u);
    EXPECT_EQ(device.regions.surplusUnmaps(), 0u);
}

TEST_F(Commands, ARegionOfAProcessThatIsGoneIsGivenBackOnce) {
    const auto gone = device.messages.connect(kEndpoint, 500);
    DaemonWorld::send(*gone, SimMessage{}.int64("command", 1).sharedMemory("shmem", memory()));
    EXPECT_EQ(texts().back(), "Unable to identify process name of pid 0");
    EXPECT_EQ(device.regions.liveMappings(), 0u);
    EXPECT_EQ(device.regions.surplusUnmaps(), 0u);
}

TEST_F(Commands, ARegionOfAnotherVersionIsGivenBack) {
    send(SimMessage{}.int64("command", 1).sharedMemory("shmem", memory(3)));
    expectOnlyLine("Client is not vending the current protocol version: 3", LogLevel::standard);
    EXPECT_EQ(device.regions.liveMappings(), 0u);
    EXPECT_EQ(device.regions.wrongLengthUnmaps(), 0u);
}

TEST_F(Commands, AThousandRefusalsLeaveNoMapping) {
    for (int i = 0; i < 1000; ++i) send(SimMessage{}.int64("command", 1).sharedMemory("shmem", memory(5)));
    EXPECT_EQ(device.regions.mapCount(), 1000u);
    EXPECT_EQ(device.regions.liveMappings(), 0u);
}

// 2: stop watching.

TEST_F(Commands, StopWatchingSaysNothing) {
    watchIt();
    device.log.setEnabled(LogLevel::debug, false);
    send(SimMessage{}.int64("command", 2));
    EXPECT_THAT(device.log.lines(), IsEmpty());
    EXPECT_FALSE(QXProcessInfo::processForPid(412));
    EXPECT_EQ(device.regions.liveMappings(), 0u);
}

TEST_F(Commands, StopWatchingWhatIsNotWatchedSaysNothing) {
    send(SimMessage{}.int64("command", 2));
    EXPECT_THAT(device.log.lines(), IsEmpty());
}

TEST_F(Commands, WatchingCanStartAgainAfterItStopped) {
    watchIt();
    send(SimMessage{}.int64("command", 2));
    device.log.clear();
    send(SimMessage{}.int64("command", 1).sharedMemory("shmem", memory()).string("name", "app"));
    EXPECT_EQ(texts().back(), "Initialization complete now watching hangs for Mail(412) | app");
}

// 4 and 5: activations.

SimMessage activationBegin() {
    return SimMessage{}
        .int64("command", 4)
        .int64("pid", 777)
        .string("bundle-id", "com.norvane.mail")
        .uint64("startTime", 18'446'744'073'709'551'615u)
        .uint64("vexStartLatency", 42)
        .int64("app-activation-state", 1)
        .int64("app-activation-type", 1);
}

TEST_F(Commands, ActivationBeginOfALaunchIsNoted) {
    send(activationBegin());
    EXPECT_THAT(firstThreeTexts(),
                ElementsAre("QXActivationStats: Noting an app activation begin",
                            "QXActivationStats: ActivationBegin Command: Pid:777 BundleID:com.norvane.mail "
                            "StartTime:18446744073709551615 VEXStartTime:42 Foreground:1 ActivationType:1",
                            "QXActivationStats: com.norvane.mail[777] activation begin (launch)"));
    EXPECT_EQ(levelOf(texts()[0]), LogLevel::debug);
    EXPECT_EQ(levelOf(texts()[1]), LogLevel::info);
    EXPECT_EQ(levelOf(texts()[2]), LogLevel::info);
}

class ActivationType : public Commands, public ::testing::WithParamInterface<std::int64_t> {};

TEST_P(ActivationType, ThatIsNotALaunchIsAResume) {
    send(SimMessage{}.int64("command", 4).string("bundle-id", "b").int64("app-activation-type", GetParam()));
    EXPECT_EQ(texts()[2], "QXActivationStats: b[0] activation begin (resume)");
}

INSTANTIATE_TEST_SUITE_P(Each, ActivationType, ::testing::Values(0, 2, -1, 0x1'0000'0000));

TEST_F(Commands, ActivationBeginWithoutABundleIsIgnored) {
    send(SimMessage{}.int64("command", 4).int64("pid", 777));
    EXPECT_THAT(texts(),
                ElementsAre("QXActivationStats: Noting an app activation begin",
                            "QXActivationStats: ActivationBegin Command: Pid:777 BundleID:(null) StartTime:0 "
                            "VEXStartTime:0 Foreground:0 ActivationType:0",
                            "QXActivationStats: Failed to get bundle-id for app activation begin command, this "
                            "activation will be ignored"));
    EXPECT_EQ(levelOf(texts()[2]), LogLevel::standard);
    EXPECT_FALSE(activationState().sharedInstance);
}

TEST_F(Commands, AnEmptyBundleIsABundle) {
    send(SimMessage{}.int64("command", 4).string("bundle-id", ""));
    EXPECT_EQ(texts()[2], "QXActivationStats: [0] activation begin (resume)");
    EXPECT_EQ(openActivations(), 1u);
}

TEST_F(Commands, ActivationTimesOfAnotherTypeReadAsZero) {
    send(SimMessage{}.int64("command", 4).int64("startTime", 5).int64("vexStartLatency", 6).uint64("pid", 7));
    EXPECT_EQ(texts()[1],
              "QXActivationStats: ActivationBegin Command: Pid:0 BundleID:(null) StartTime:0 VEXStartTime:0 "
              "Foreground:0 ActivationType:0");
}

TEST_F(Commands, ActivationNumbersKeepTheirLow32Bits) {
    send(SimMessage{}
             .int64("command", 4)
             .int64("pid", 0x1'0000'0309)
             .string("bundle-id", "b")
             .int64("app-activation-state", 0xFFFF'FFFF)
             .int64("app-activation-type", 0x2'0000'0001));
    EXPECT_EQ(texts()[1],
              "QXActivationStats: ActivationBegin Command: Pid:777 BundleID:b StartTime:0 VEXStartTime:0 "
              "Foreground:-1 ActivationType:1");
    EXPECT_EQ(texts()[2], "QXActivationStats: b[777] activation begin (launch)");
}

TEST_F(Commands, ActivationEndIsNoted) {
    send(SimMessage{}
             .int64("command", 5)
             .int64("pid", 777)
             .string("bundle-id", "com.norvane.mail")
             .uint64("endTime", 99)
             .int64("app-activation-state", 1)
             .int64("app-activation-result", -3));
    EXPECT_THAT(firstThreeTexts(),
                ElementsAre("QXActivationStats: Noting an app activation end",
                            "QXActivationStats: ActivationEnd Command: Pid:777 BundleID:com.norvane.mail "
                            "EndTime:99 Foreground:1 ActivationResult:-3",
                            "QXActivationStats: com.norvane.mail[777] activation end"));
    EXPECT_EQ(levelOf(texts()[0]), LogLevel::debug);
    EXPECT_EQ(levelOf(texts()[1]), LogLevel::info);
    EXPECT_EQ(levelOf(texts()[2]), LogLevel::info);
}

TEST_F(Commands, ActivationEndWithoutABundleIsIgnored) {
    send(SimMessage{}.int64("command", 5));
    EXPECT_THAT(texts(), ElementsAre("QXActivationStats: Noting an app activation end",
                                     "QXActivationStats: ActivationEnd Command: Pid:0 BundleID:(null) EndTime:0 "
                                     "Foreground:0 ActivationResult:0",
                                     "QXActivationStats: Failed to get bundleID for app activation end command, "
                                     "ignoring this"));
    EXPECT_EQ(levelOf(texts()[2]), LogLevel::standard);
    EXPECT_FALSE(activationState().sharedInstance);
}

TEST_F(Commands, ActivationsNeedNoWatchedProcess) {
    send(activationBegin());
    EXPECT_TRUE(hangState().watchedProcesses.empty());
    EXPECT_EQ(openActivations(), 1u);
}

}  // namespace
}  // namespace quorvix::test
