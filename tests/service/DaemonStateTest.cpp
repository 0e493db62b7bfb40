#include "service/DaemonState.h"

#include "tests/support/DaemonWorld.h"

namespace quorvix::test {
namespace {

class DaemonState : public DaemonWorld {
protected:
    // One member of what an operator would get now, as one-line JSON.
    std::string published(std::string_view key) {
        const JsonObject state = device.state.read();
        for (const auto& [name, value] : state.members()) {
            std::string text;
            if (name == key) text_format::appendJson(text, value);
            if (name == key) return text;
        }
        return "absent";
    }
};

TEST_F(DaemonState, ShowsTheSettingsInForce) {
    prefer("QuorvixReportPeriod", 60);
    startWithHangTracing();
    EXPECT_EQ(published("settings"),
              R"({"internalBuild":false,"hangTracingEnabled":true,"memoryLoggingEnabled":false,)"
              R"("appActivationLoggingEnabled":false,"swivexEnabled":true,"hudEnabled":false,)"
              R"("memoryLoggingIntervalSeconds":3600,"reportPeriodTicks":60000,"maxActivationCount":200,)"
              R"("cpuUtilizationThresholdMs":50})");
}

TEST_F(DaemonState, ShowsWhoIsWatchedAndTheirCredits) {
    startWithHangTracing();
    EXPECT_EQ(published("watched"), "[]");
    watch(412);
    watch(413, "/Applications/Maps.app/Maps");
    hangState().appCredits["Maps"] = 1;
    EXPECT_EQ(published("watched"), R"([{"pid":412,"name":"Mail","path":"/Applications/Mail.app/Mail","credits":4},)"
                                    R"({"pid":413,"name":"Maps","path":"/Applications/Maps.app/Maps","credits":1}])");
    EXPECT_EQ(published("appCredits"), R"({"Maps":1})");
}

TEST_F(DaemonState, ShowsTheDaysReports) {
    startWithHangTracing();
    hangState().dailyLogCredits = -2;
    EXPECT_EQ(published("dailyCredits"), R"({"left":-2,"limit":25})");
}

TEST_F(DaemonState, SaysWhenCreditsComeBack) {
    prefer("QuorvixReportPeriod", 60);
    startWithHangTracing();
    advanceMs(5'000);  // the first tick gives credits back and begins the day
    advanceMs(4'000);
    const std::string budget = published("budget");
    EXPECT_NE(budget.find(R"("refillEverySeconds":15)"), std::string::npos) << budget;
    // A tick after more than 15 s: 11 s and a millisecond are left.
    EXPECT_NE(budget.find(R"("nextRefillInSeconds":11)"), std::string::npos) << budget;
}

TEST_F(DaemonState, WithoutHangTracingNoCreditsComeBack) {
    prefer("QuorvixEnableMemoryLogging", true);
    start();
    const std::string budget = published("budget");
    EXPECT_NE(budget.find(R"("nextRefillInSeconds":null,"dailyResetInSeconds":null)"), std::string::npos) << budget;
}

// A tick past the last of a day has its end behind it until the next check begins another.
TEST_F(DaemonState, TheDayIsOverWithItsLastTick) {
    constexpr std::uint64_t kDay = 2'073'600'000'001;
    startWithHangTracing();
    advanceMs(5'000);
    const std::uint64_t begin = settings().dailyPeriodStartTicks;
    EXPECT_EQ(ticksToDailyReset(begin), kDay);
    EXPECT_EQ(ticksToDailyReset(begin + kDay - 1), 1u);
    EXPECT_EQ(ticksToDailyReset(begin + kDay), 0u);
    EXPECT_EQ(ticksToDailyReset(begin + kDay + 1), 0u);
}

TEST_F(DaemonState, ShowsRefusalsWithTheirReasonsNewestFirst) {
    startWithHangTracing();
    hangState().refusals.add("Mail", "main", RefusalReason::appCredits, device.tickClock.now());
    advanceMs(2'000);
    hangState().refusals.add("Maps", "draw", RefusalReason::noLibrary, device.tickClock.now());
    const std::string budget = published("budget");
    EXPECT_NE(budget.find(R"("refused":{"switched-off":0,"no-library":1,"app-credits":1,"daily-limit":0,)"
                          R"("fence-pending":0,"not-written":0},)"
                          R"("lastRefusals":[{"secondsAgo":0,"app":"Maps","hang":"draw","reason":"no-library"},)"
                          R"({"secondsAgo":2,"app":"Mail","hang":"main","reason":"app-credits"}])"),
              std::string::npos)
        << budget;
}

TEST_F(DaemonState, CountsWhatWasDropped) {
    startWithHangTracing();
    App app = watch(412);
    device.regions.faultNextAccess(device.regions.lastMapping().address);
    advanceMs(5'000);
    EXPECT_NE(published("counters").find(R"("regionFaults":1)"), std::string::npos) << published("counters");
}

TEST_F(DaemonState, ShowsActivationsWithoutMakingTheirTracker) {
    startWithHangTracing();
    EXPECT_NE(published("counters")
                  .find(R"("activations":{"recordedToday":0,"open":0,"stepsDropped":0,)"
                        R"("beginsDropped":0,"outputsDropped":0},)"
                        R"("snapshots":{"bytesUsed":0,"allocationsRefused":0})"),
              std::string::npos)
        << published("counters");
    EXPECT_FALSE(activationState().sharedInstance);
}

TEST_F(DaemonState, CountsActivationsAndTheMemoryOfTheirSnapshots) {
    startWithHangTracing();
    device.processes.tasks = {{.pid = 0, .name = "kernel"}, {.pid = 412, .name = "Mail"}};
    AppActivationTracker& tracker = AppActivationTracker::sharedInstance();
    perfState().memory.failNth(1);
    tracker.endAppActivationTrackingForPID(9, "maps", 0, 1, 0);
    tracker.beginAppActivationTrackingForPID(412, "mail", 0, 0, 1, 1);
    device.scheduler.runPending();
    EXPECT_NE(published("counters")
                  .find(R"("activations":{"recordedToday":1,"open":1,"stepsDropped":0,)"
                        R"("beginsDropped":0,"outputsDropped":0},"snapshots":{"bytesUsed":)" +
                        std::to_string(2 * sizeof(task_statistics)) + R"(,"allocationsRefused":1})"),
              std::string::npos)
        << published("counters");
}

TEST_F(DaemonState, ReadingItChangesNothingAndSaysNothing) {
    startWithHangTracing();
    watch(412);
    device.log.clear();
    const std::string first = formatText("%@", device.state.read());
    EXPECT_EQ(formatText("%@", device.state.read()), first);
    EXPECT_TRUE(device.log.lines().empty());
}

TEST_F(DaemonState, IsJSONWhateverThePreferencesHold) {
    prefer("QuorvixAppActivationLoggingCPUUtilizationThreshold", std::numeric_limits<double>::infinity());
    startWithHangTracing();
    EXPECT_EQ(settings().cpuUtilizationThreshold, std::numeric_limits<double>::infinity());
    EXPECT_TRUE(device.json.serialise(device.state.read()));
}

}  // namespace
}  // namespace quorvix::test
