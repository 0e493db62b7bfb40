#include "tests/activation/ActivationWorld.h"

namespace quorvix::test {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class Tracker : public ActivationWorld {
protected:
    static std::string notRecorded(const std::string& start, const std::string& end, int count) {
        return "default: QXActivationStats: Activation not recorded for:com.norvane.mail StartState:" + start +
               " EndState:" + end + " Number Of Activations:" + std::to_string(count);
    }
};

TEST_F(Tracker, TellsOfEveryRecordedActivationAndOfNoOther) {
    (void)tracker();
    begin();
    end();
    begin();
    end({.state = 0});
    using Event = std::pair<LogEvent, std::string>;
    EXPECT_THAT(device.log.events(),
                ElementsAre(Event{{LogEventKind::activationRecorded}, "Activation recorded: com.norvane.mail"}));
}

TEST_F(Tracker, IsMadeOnceOnFirstUse) {
    EXPECT_FALSE(activationState().sharedInstance);
    AppActivationTracker& first = tracker();
    EXPECT_EQ(&first, &tracker());
    EXPECT_EQ(device.queues.queues().size(), 2u);
}

TEST_F(Tracker, WorksOnTwoQueuesOfItsOwn) {
    (void)tracker();
    const auto& queues = device.queues.queues();
    ASSERT_EQ(queues.size(), 2u);
    EXPECT_EQ(queues[0]->label(), "com.norvane.quorvix.perfstats.logoutput");
    EXPECT_EQ(queues[0]->quality(), QualityOfService::utility);
    EXPECT_EQ(queues[1]->label(), "com.norvane.quorvix.perfstats.activationqueue");
    EXPECT_EQ(queues[1]->quality(), QualityOfService::userInitiated);
}

TEST_F(Tracker, OnlyQueuesWhatItIsTold) {
    (void)tracker();
    device.log.clear();
    queueBegin({});
    queueEnd({});
    EXPECT_THAT(lines(), IsEmpty());
    device.scheduler.runPending();
    EXPECT_EQ(sentCount(), 1u);
}

TEST_F(Tracker, PairsABeginWithItsEnd) {
    (void)tracker();
    EXPECT_THAT(trackerLinesOf([&] { begin(); }), ElementsAre("appLaunch debug: vexStartLatencyInMs 0 ms"));
    EXPECT_EQ(open(), 1u);
    const Lines ended = trackerLinesOf([&] { end(); });
    ASSERT_EQ(ended.size(), 10u);
    EXPECT_EQ(ended[0], "appLaunch debug: vexEndLatencyInMs 0 ms");
    EXPECT_EQ(ended[1],
              "debug: QXActivationStats: Activation Complete:Activationid:-441447318793485924 "
              "BundleID:com.norvane.mail PID:412 Result:0 Type:1 TimeTaken:0 ms");
    EXPECT_EQ(ended.back(),
              "debug: QXActivationStats: Sending activation for com.norvane.mail to Wattrel. Number Of Activations "
              "recorded:1");
    EXPECT_EQ(open(), 0u);
    EXPECT_EQ(recorded(), 1u);
    EXPECT_EQ(sentCount(), 1u);
    EXPECT_THAT(trackerLinesOf([&] { advanceMs(61'000); }), IsEmpty());
}

TEST_F(Tracker, SaysOfACompleteActivationWhatItWas) {
    begin({.time = 0x1'0000'0001, .type = 5});
    end({.time = 0x1'0000'0003, .result = -3});
    EXPECT_TRUE(
        hasLine("debug: QXActivationStats: Activation Complete:Activationid:6983778716 BundleID:com.norvane.mail "
                "PID:412 Result:-3 Type:5 TimeTaken:2 ms"));
    EXPECT_EQ(lineWith("appLaunch"), "");
}

TEST_F(Tracker, ShowsALongActivationSigned) {
    begin({.time = 10});
    end({.time = 9});
    EXPECT_THAT(lineWith("debug: QXActivationStats: Activation Complete"), HasSubstr("TimeTaken:-1 ms"));
}

TEST_F(Tracker, FirstBeginWins) {
    begin({.time = 1000});
    EXPECT_THAT(trackerLinesOf([&] { begin({.time = 2000, .state = 0}); }),
                ElementsAre("default: QXActivationStats: beginActivationTrackingForPID: An entry already exists for "
                            "412:com.norvane.mail\n"));
    end({.time = 3000});
    EXPECT_THAT(sent("ActivationData"), ElementsAre(HasSubstr("ActivationDuration_ms: u2000")));
}

TEST_F(Tracker, ASecondBeginArmsNoTimeOut) {
    begin();
    advanceMs(30'000);
    begin();
    EXPECT_EQ(device.scheduler.waitingCount(), 2u);  // one time-out and midnight
}

TEST_F(Tracker, KeepsProcessesAndBundlesApart) {
    begin({.bundleID = "a"});
    begin({.bundleID = "b"});
    begin({.pid = 413, .bundleID = "a"});
    EXPECT_EQ(open(), 3u);
    end({.bundleID = "b"});
    EXPECT_EQ(open(), 2u);
    EXPECT_EQ(lineWith("default: QXActivationStats: beginActivation"), "");
}

TEST_F(Tracker, OddPidsAndIdentifiersAreKeysLikeOthers) {
    for (const std::int32_t pid : {0, -1, -2'147'483'647 - 1, 2'147'483'647}) {
        for (const std::string& bundleID : {std::string(), std::string(60'000, 'x'), std::string("\xff\xfe")}) {
            begin({.pid = pid, .bundleID = bundleID});
            EXPECT_EQ(open(), 1u);
            end({.pid = pid, .bundleID = bundleID});
            EXPECT_EQ(open(), 0u);
        }
    }
    EXPECT_EQ(sentCount(), 12u);
}

// The gate.

TEST_F(Tracker, SendsOnlyWhatWasInTheForegroundAtBothEnds) {
    begin({.state = 0});
    EXPECT_EQ(trackerLinesOf([&] { end({.state = 1}); }).back(), notRecorded("Background", "Foreground", 0));
    begin({.state = 1});
    EXPECT_EQ(trackerLinesOf([&] { end({.state = 0}); }).back(), notRecorded("Foreground", "Background", 0));
    begin({.state = 0});
    EXPECT_EQ(trackerLinesOf([&] { end({.state = 0}); }).back(), notRecorded("Background", "Background", 0));
    EXPECT_EQ(sentCount(), 0u);
    EXPECT_EQ(recorded(), 0u);
}

TEST_F(Tracker, AnyStateButZeroIsCalledForegroundAndOnlyOneIsSent) {
    begin({.state = 2});
    EXPECT_EQ(trackerLinesOf([&] { end({.state = 1}); }).back(), notRecorded("Foreground", "Foreground", 0));
    begin({.state = 1});
    EXPECT_EQ(trackerLinesOf([&] { end({.state = -1}); }).back(), notRecorded("Foreground", "Foreground", 0));
}

// The record keeps one byte of the start state; the end's is tested whole.
TEST_F(Tracker, StatesBeyondAByteAreTestedAsTheyAreHeld) {
    begin({.state = 257});
    end();
    EXPECT_EQ(sentCount(), 1u);
    begin({.state = 256});
    EXPECT_EQ(trackerLinesOf([&] { end(); }).back(), notRecorded("Background", "Foreground", 1));
    begin();
    EXPECT_EQ(trackerLinesOf([&] { end({.state = 257}); }).back(), notRecorded("Foreground", "Foreground", 1));
    begin();
    EXPECT_EQ(trackerLinesOf([&] { end({.state = 256}); }).back(), notRecorded("Foreground", "Foreground", 1));
}

// The begin's type is tested whole; the end and the time-out ask the record, which keeps one byte.
TEST_F(Tracker, TypesBeyondAByteAreTestedAsTheyAreHeld) {
    (void)tracker();
    EXPECT_THAT(trackerLinesOf([&] { begin({.type = 257}); }), IsEmpty());
    EXPECT_EQ(trackerLinesOf([&] { end(); }).front(), "appLaunch debug: vexEndLatencyInMs 0 ms");
}

TEST_F(Tracker, ResultsAreStoredAsOneByte) {
    begin();
    end({.result = 0x1FF});
    EXPECT_THAT(sent("ActivationData"), ElementsAre(HasSubstr("ActivationResult: b255, ")));
    EXPECT_THAT(lineWith("debug: QXActivationStats: Activation Complete"), HasSubstr("Result:511 "));
}

TEST_F(Tracker, SendsNothingWhereTheLimitIsZero) {
    settings().maxActivationCount = 0;
    begin();
    EXPECT_EQ(trackerLinesOf([&] { end(); }).back(), notRecorded("Foreground", "Foreground", 0));
    EXPECT_EQ(sentCount(), 0u);
}

TEST_F(Tracker, SendsUpToTheLimitOfADay) {
    for (int i = 0; i < 199; ++i) end();
    EXPECT_EQ(sentCount(), 199u);
    end();
    EXPECT_EQ(sentCount(), 200u);
    EXPECT_EQ(trackerLinesOf([&] { end(); }).back(), notRecorded("Foreground", "Foreground", 200));
    EXPECT_EQ(sentCount(), 200u);
    EXPECT_EQ(recorded(), 200u);
}

TEST_F(Tracker, TheLimitIsTheOneInForceAtTheEnd) {
    settings().maxActivationCount = 1;
    end();
    begin();
    settings().maxActivationCount = 2;
    end();
    EXPECT_EQ(sentCount(), 2u);
    settings().maxActivationCount = 1;
    EXPECT_EQ(trackerLinesOf([&] { end(); }).back(), notRecorded("Foreground", "Foreground", 2));
}

TEST_F(Tracker, ABurstMayPassTheLimitByWhatIsInFlight) {
    settings().maxActivationCount = 1;
    for (int i = 0; i < 5; ++i) queueEnd({});
    device.scheduler.runPending();
    EXPECT_EQ(sentCount(), 5u);
    EXPECT_EQ(recorded(), 5u);
    EXPECT_TRUE(
        hasLine("debug: QXActivationStats: Sending activation for com.norvane.mail to Wattrel. Number Of "
                "Activations recorded:5"));
    end();
    EXPECT_EQ(sentCount(), 5u);
}

TEST_F(Tracker, TheLimitIsUnsigned) {
    settings().maxActivationCount = 0xFFFF'FFFF;
    activationState().activationsRecordedCount = 0x8000'0000;
    end();
    EXPECT_EQ(sentCount(), 1u);
    EXPECT_THAT(lines().back(), HasSubstr("Number Of Activations recorded:-2147483647"));
}

TEST_F(Tracker, RendersForThePowerLogOnly) {
    begin();
    end();
    EXPECT_EQ(device.console.printed(), "");
    EXPECT_THAT(device.console.logged(), IsEmpty());
    EXPECT_EQ(lineWith("debug: QXActivationStats: Output"), "");
}

// Ends without a begin.

TEST_F(Tracker, AnEndAloneMakesARecordOfItsOwn) {
    (void)tracker();
    const Lines said = trackerLinesOf([&] { end({.time = kNow - 300, .result = 7}); });
    EXPECT_EQ(said.front(),
              "default: QXActivationStats: endActivationTrackingForPID: Did not find an existing entry for "
              "412:com.norvane.mail\n");
    EXPECT_THAT(sent("ActivationData"),
                ElementsAre(AllOf(HasSubstr("ActivationDuration_ms: u0, ActivationResult: b32, ActivationType: b0, "
                                            "ActivationFlags: u50688}"))));
    EXPECT_EQ(sent("CPUStatistics"), (Lines{"{}"}));
    EXPECT_EQ(sent("MemoryStatistics"), (Lines{"{}"}));
    EXPECT_EQ(recorded(), 1u);
}

TEST_F(Tracker, AnEndAloneInTheBackgroundIsNotSent) {
    EXPECT_EQ(trackerLinesOf([&] { end({.state = 0}); }).back(), notRecorded("Background", "Background", 0));
    EXPECT_EQ(sentCount(), 0u);
}

TEST_F(Tracker, AnEndAloneOfUnknownTimeSaysSoTwice) {
    end({.time = 0});
    EXPECT_TRUE(hasLine("default: QXActivationStats: We got no Start time for the activation"));
    EXPECT_TRUE(hasLine("default: QXActivationStats: We got no End time for the activation"));
}

TEST_F(Tracker, TheStateOfAnEndAloneIsTestedAsByteAndWhole) {
    EXPECT_EQ(trackerLinesOf([&] { end({.state = 257}); }).back(), notRecorded("Foreground", "Foreground", 0));
    EXPECT_EQ(trackerLinesOf([&] { end({.state = 256}); }).back(), notRecorded("Background", "Foreground", 0));
}

// Begins without an end.

TEST_F(Tracker, ABeginWithoutAnEndIsGivenUpAfterAMinute) {
    begin();
    EXPECT_THAT(trackerLinesOf([&] { advanceMs(59'999); }), IsEmpty());
    EXPECT_EQ(open(), 1u);
    EXPECT_THAT(trackerLinesOf([&] { advanceMs(1); }),
                ElementsAre("default: QXActivationStats: beginActivationTrackingForPID: Did not find an end call entry "
                            "for 412:com.norvane.mail\n"));
    EXPECT_EQ(open(), 0u);
    EXPECT_EQ(sentCount(), 0u);
    EXPECT_EQ(recorded(), 0u);
}

TEST_F(Tracker, GivingUpLogsTheLatenciesOfTheCapturedBegin) {
    begin({.vexStartTime = kNow - 100});
    device.log.clear();
    advanceMs(60'000);
    EXPECT_THAT(lines(),
                ElementsAre("debug: QXActivationStats: Value to insert:1f Output Value:1f00 MaxValue:1f Index:8",
                            "debug: QXActivationStats: Latency to get start message:60100 ms",
                            "debug: QXActivationStats: Value to insert:1f Output Value:3ff00 MaxValue:1f Index:13",
                            "debug: QXActivationStats: Latency to get end message:60000 ms",
                            "default: QXActivationStats: beginActivationTrackingForPID: Did not find an end call entry "
                            "for 412:com.norvane.mail\n"));
}

TEST_F(Tracker, GivingUpTakesNoSnapshot) {
    begin();
    const auto before = device.host.counts().size();
    advanceMs(60'000);
    EXPECT_EQ(device.host.counts().size(), before);
}

TEST_F(Tracker, ATimeOutWhoseActivationHasEndedDoesNothing) {
    begin();
    end();
    EXPECT_THAT(trackerLinesOf([&] { advanceMs(60'000); }), IsEmpty());
}

TEST_F(Tracker, ATimeOutTakesANewerActivationOfItsKey) {
    begin({.time = kNow, .vexStartTime = kNow, .state = 1, .type = 0});
    end();
    advanceMs(40'000);
    begin({.time = kNow + 40'000, .vexStartTime = kNow + 40'000});
    device.log.clear();
    advanceMs(20'000);
    EXPECT_EQ(open(), 0u);
    // The latencies are those of the first begin.
    EXPECT_TRUE(hasLine("debug: QXActivationStats: Latency to get start message:60000 ms"));
    EXPECT_EQ(trackerLinesOf([&] { advanceMs(40'000); }), Lines{});
}

TEST_F(Tracker, TheTimeOutIsOnTheMonotonicClock) {
    begin();
    device.scheduler.setWallClock(sim::SimScheduler::kDefaultWallTime + std::chrono::hours(2));
    device.scheduler.runPending();
    EXPECT_EQ(open(), 1u);
    device.scheduler.advanceMonotonicOnly(std::chrono::seconds(60));
    EXPECT_EQ(open(), 0u);
}

// The messages of clients.

TEST_F(Tracker, IsToldByMessages) {
    prefer("QuorvixEnableAppActivationLogging", true, kQuorvixDomain);
    start();
    const auto client = connect(1000);
    send(*client, sim::SimMessage{}
                      .int64("command", 4)
                      .int64("pid", kPid)
                      .string("bundle-id", kBundle)
                      .uint64("startTime", kNow - 500)
                      .uint64("vexStartLatency", kNow - 60)
                      .int64("app-activation-state", 1)
                      .int64("app-activation-type", 1));
    EXPECT_EQ(open(), 1u);
    send(*client, sim::SimMessage{}
                      .int64("command", 5)
                      .int64("pid", kPid)
                      .string("bundle-id", kBundle)
                      .uint64("endTime", kNow - 20)
                      .int64("app-activation-state", 1)
                      .int64("app-activation-result", 2));
    EXPECT_EQ(open(), 0u);
    EXPECT_THAT(sent("ActivationData"),
                ElementsAre(HasSubstr("BundleID: com.norvane.mail, ActivationDuration_ms: u480, ActivationResult: b2, "
                                      "ActivationType: b1, ")));
}

}  // namespace
}  // namespace quorvix::test
