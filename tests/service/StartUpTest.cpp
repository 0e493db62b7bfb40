#include "service/Log.h"
#include "tests/support/DaemonWorld.h"

namespace quorvix::test {
namespace {

using ::testing::ElementsAre;

using Call = sim::SimPreferences::Call;

class StartUp : public DaemonWorld {
protected:
    using DaemonWorld::DaemonWorld;
    // Only activation logging is on: the quietest daemon that stays up.
    void startQuietly() {
        prefer("QuorvixEnableAppActivationLogging", true, kQuorvixDomain);
        start();
    }
    // Starts a daemon that ends during its start; its status.
    int startAndEnd() {
        try {
            start();
        } catch (const sim::SimulatedExit& exit) {
            return exit.status;
        }
        ADD_FAILURE() << "the daemon lives";
        return -1;
    }
};

class StartUpInDeviceTicks : public StartUp {
protected:
    StartUpInDeviceTicks() : StartUp(sim::SimTickClock::kDeviceTicks) {}
};

class StartUpInOddTicks : public StartUp {
protected:
    StartUpInOddTicks() : StartUp(TickRatio{4'000'000'001, 7}) {}
};

class StartUpWithOneSource : public DaemonWorld,
                             public ::testing::WithParamInterface<std::pair<const char*, PreferenceDomain>> {};

TEST_F(StartUp, SaysWhatItDoesInOrder) {
    prefer("QuorvixEnabled", true);
    start();

    EXPECT_THAT(texts(),
                ElementsAre("Create log directory: /var/root/Library/Caches/quorvixd",
                            "Create log directory: /var/root/Library/Caches/quorvixd/tmp",
                            "Create log directory: /var/root/Library/Caches/quorvixd/spool",
                            "refreshPreferences: Memory Logging Disabled", "refreshPreferences: Hang Tracing Enabled",
                            "refreshPreferences: QuorvixEnableSwivex = 0",
                            "refreshPreferences: App Activation Logging Disabled"));
    for (const auto& line : device.log.lines()) EXPECT_EQ(line.level, LogLevel::info) << line.text;
}

TEST_F(StartUp, LogsToItsSubsystemAndTheEmptyCategory) {
    startQuietly();
    for (const auto& line : device.log.lines()) {
        EXPECT_EQ(line.subsystem, "com.norvane.quorvix");
        EXPECT_EQ(line.category, "");
    }
}

TEST_F(StartUp, SynchronisesThePreferencesBeforeAndAfterTheListenerIsMade) {
    startQuietly();
    const Call synchronise{Call::Kind::synchronise, "com.norvane.da", "mobile"};
    EXPECT_THAT(device.preferences.calls(), ElementsAre(synchronise, synchronise));
}

TEST_F(StartUp, FillsInInternalDefaultsBeforeItAppliesThePreferences) {
    device.capabilities.setAnswer("InternalBuild", true);
    start();

    EXPECT_TRUE(settings().hangTracingEnabled);
    EXPECT_TRUE(settings().memoryLoggingEnabled);
    EXPECT_TRUE(settings().swivexEnabled);
    EXPECT_EQ(texts().at(3), "checkPreferences: Internal install, force enabled.");
    EXPECT_EQ(texts().at(4), "refreshPreferences: Memory Logging Enabled");
}

TEST_F(StartUp, MakesOneUserInitiatedQueue) {
    startQuietly();
    ASSERT_EQ(device.queues.queues().size(), 1u);
    EXPECT_EQ(device.queues.queues()[0]->label(), "com.norvane.quorvix");
    EXPECT_EQ(device.queues.queues()[0]->quality(), QualityOfService::userInitiated);
    EXPECT_EQ(serviceState().daemonQueue, device.queues.queues()[0]);
}

TEST_F(StartUp, RegistersTheThreeChangeNotificationsOnTheQueue) {
    startQuietly();
    using Registration = sim::SimNotifications::Registration;
    EXPECT_THAT(device.notifications.registrations(),
                ElementsAre(Registration{"com.norvane.da.tasking_changed", "com.norvane.quorvix"},
                            Registration{"com.norvane.Provisia.profileListChanged", "com.norvane.quorvix"},
                            Registration{"com.norvane.quorvix.pref_changed", "com.norvane.quorvix"}));
}

TEST_F(StartUp, LivesWithANotificationThatCannotBeRegistered) {
    device.notifications.faults.failNth("registerHandler", 2, ErrorCode{EIO});
    startQuietly();
    EXPECT_THAT(device.notifications.livingNames(),
                ElementsAre("com.norvane.da.tasking_changed", "com.norvane.quorvix.pref_changed"));
}

TEST_F(StartUp, OpensTheEndpointAndPublishesItsStateBesideIt) {
    startQuietly();
    EXPECT_TRUE(device.messages.hasListener("com.norvane.quorvixd"));
    EXPECT_EQ(device.state.endpoint(), "com.norvane.quorvixd");
    EXPECT_EQ(device.state.queue(), serviceState().daemonQueue);
}

TEST_F(StartUp, StampsReportsInLocalTime) {
    device.wallClock.setTimeZone(std::chrono::hours(9));
    startQuietly();
    EXPECT_EQ(serviceState().reportDateFormatter->format(device.wallClock.now()), "2026-01-15-210000");
}

TEST_F(StartUp, ATickIsAMillisecondAtTheMillisecondRatio) {
    startQuietly();
    EXPECT_EQ(msPerTick(), 1.0);
}

TEST_F(StartUpInDeviceTicks, ComputesTheTickFactorInSinglePrecision) {
    startQuietly();
    EXPECT_EQ(msPerTick(), double{125.0f * 1e-6f / 3.0f});
    EXPECT_NEAR(msPerTick(), 4.1667e-5, 1e-9);
    EXPECT_NE(msPerTick(), 125.0 * 1e-6 / 3.0);
    // What makes the 5-second threshold of the device a little less than 120,000,000 ticks.
    EXPECT_NEAR(msPerTick() * 120'000'000, 5000.000383, 1e-6);
}

TEST_F(StartUpInOddTicks, RoundsNumeratorProductAndQuotientEachToSinglePrecision) {
    startQuietly();
    const volatile float numerator = static_cast<float>(4'000'000'001u);
    const volatile float product = numerator * 1e-6f;
    const volatile float quotient = product / 7.0f;
    EXPECT_EQ(msPerTick(), static_cast<double>(quotient));
}

TEST_F(StartUp, TellsThatItIsReadyOnceAlsoWhenItEndsAtOnce) {
    EXPECT_EQ(startAndEnd(), 0);
    EXPECT_EQ(device.lifecycle.readyCount(), 1);
}

TEST_F(StartUp, EndsWithStatusZeroWhenEverythingIsSwitchedOff) {
    EXPECT_EQ(startAndEnd(), 0);
    EXPECT_EQ(texts().back(), "quorvixd is exiting. All sources turned off");
    EXPECT_EQ(levelOf("quorvixd is exiting. All sources turned off"), LogLevel::standard);
}

TEST_P(StartUpWithOneSource, StaysUp) {
    prefer(GetParam().first, true, GetParam().second);
    EXPECT_NO_THROW(start());
    EXPECT_FALSE(device.lifecycle.exitStatus());
}

INSTANTIATE_TEST_SUITE_P(Each, StartUpWithOneSource,
                         ::testing::Values(std::pair{"QuorvixEnabled", kDaemonDomain},
                                           std::pair{"QuorvixEnableMemoryLogging", kDaemonDomain},
                                           std::pair{"QuorvixEnableAppActivationLogging", kQuorvixDomain}));

TEST_F(StartUp, DeliversNothingBeforeTheMainThreadIsGivenAway) {
    prefer("QuorvixEnabled", true);
    device.messages.connect(kEndpoint, 412);
    device.notifications.post("com.norvane.da.tasking_changed");
    registrations.emplace(startService());
    device.scheduler.runPending();
    EXPECT_FALSE(hasText("VEX: Client started new connection: pid 412"));

    device.queues.giveMainThread();
    device.scheduler.runPending();
    EXPECT_EQ(texts().back(), "VEX: Client started new connection: pid 412");
}

TEST_F(StartUp, HandlesWhatClientsSentBeforeItStartedAfterTheFirstRefresh) {
    prefer("QuorvixEnabled", true);
    device.processes.setExecutablePath(412, "/Applications/Mail.app/Mail");
    const auto client = device.messages.connect(kEndpoint, 412);
    client->send(sim::SimMessage{}.int64("command", 6));
    start();

    auto lines = texts();
    lines.erase(lines.begin(), lines.end() - 3);
    EXPECT_THAT(lines, ElementsAre("refreshPreferences: App Activation Logging Disabled",
                                   "VEX: Client started new connection: pid 412", "QXFenceTracking: Fence begin"));
}

TEST_F(StartUp, HandlesNoMessageWhenItEndsAtOnce) {
    device.messages.connect(kEndpoint, 412)->send(sim::SimMessage{}.int64("command", 6));
    startAndEnd();
    EXPECT_FALSE(hasText("QXFenceTracking: Fence begin"));
}

TEST_F(StartUp, MakesItsLogHandleOnce) {
    const LogHandle& first = quorvixLog();
    startQuietly();
    EXPECT_EQ(&quorvixLog(), &first);
}

}  // namespace
}  // namespace quorvix::test
