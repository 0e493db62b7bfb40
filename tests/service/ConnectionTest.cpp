#include "service/MessageHandlers.h"
#include "tests/support/DaemonWorld.h"

namespace quorvix::test {
namespace {

using ::testing::ElementsAre;

class Connection : public DaemonWorld {
protected:
    void SetUp() override {
        startWithHangTracing();
        client = connect(412);
        device.log.clear();
    }
    void deliver() { device.scheduler.runPending(); }
    void expectOnlyLine(std::string_view text, LogLevel level) {
        EXPECT_THAT(texts(), ElementsAre(text));
        EXPECT_EQ(levelOf(text), level);
    }

    std::shared_ptr<sim::SimClient> client;
};

TEST_F(Connection, ThatIsGoneStopsWatchingItsPid) {
    App app = watch(413, "/Applications/Maps.app/Maps");
    device.log.clear();
    app.client->die();
    deliver();
    EXPECT_THAT(texts(), ElementsAre("Client disconnected: 413", "dealloc for Maps"));
    EXPECT_EQ(levelOf("Client disconnected: 413"), LogLevel::info);
    EXPECT_FALSE(QXProcessInfo::processForPid(413));
    EXPECT_EQ(device.regions.liveMappings(), 0u);
}

TEST_F(Connection, ThatIsGoneIsLetGo) {
    EXPECT_TRUE(client->daemonHoldsHandler());
    client->die();
    deliver();
    EXPECT_FALSE(client->daemonHoldsHandler());
    EXPECT_EQ(device.messages.liveConnections(), 0u);
}

TEST_F(Connection, ThatWasNeverWatchedGoesWithOneLine) {
    client->die();
    deliver();
    expectOnlyLine("Client disconnected: 412", LogLevel::info);
}

TEST_F(Connection, MessagesSentBeforeTheEndAreHandledFirst) {
    client->send(sim::SimMessage{}.int64("command", 6));
    client->die();
    deliver();
    EXPECT_THAT(texts(), ElementsAre("QXFenceTracking: Fence begin", "Client disconnected: 412"));
}

TEST_F(Connection, TerminationIsOnlyNoted) {
    App app = watch(413);
    device.log.clear();
    device.messages.terminationImminent();
    deliver();
    EXPECT_THAT(texts(), ElementsAre("Termination imminent!", "Termination imminent!"));
    EXPECT_EQ(levelOf("Termination imminent!"), LogLevel::info);
    EXPECT_TRUE(QXProcessInfo::processForPid(413));
    EXPECT_FALSE(device.lifecycle.exitStatus());
}

TEST_F(Connection, AnInterruptionIsAnUnexpectedError) {
    client->interrupt();
    deliver();
    expectOnlyLine("Unexpected error: Connection interrupted", LogLevel::standard);
}

TEST_F(Connection, LivesOnAfterAnyOtherError) {
    client->failReceive(ErrorCode{ENOBUFS});
    client->send(sim::SimMessage{}.int64("command", 6));
    deliver();
    EXPECT_THAT(texts(), ElementsAre("Unexpected error: No buffer space available", "QXFenceTracking: Fence begin"));
    EXPECT_EQ(levelOf(texts()[0]), LogLevel::standard);
}

TEST_F(Connection, LivesOnAfterWhatDoesNotDecode) {
    client->sendUndecodable("<undecodable message, 3 bytes: header cut short>");
    client->send(sim::SimMessage{}.int64("command", 6));
    deliver();
    EXPECT_THAT(texts(), ElementsAre("We got a non-dictionary event: <undecodable message, 3 bytes: header cut short>",
                                     "QXFenceTracking: Fence begin"));
    EXPECT_EQ(levelOf(texts()[0]), LogLevel::standard);
}

TEST_F(Connection, AConnectionIsNoDictionaryEither) {
    handleConnectionEvent(nullptr, {.kind = MessageEventKind::newConnection, .description = "<connection>"});
    expectOnlyLine("We got a non-dictionary event: <connection>", LogLevel::standard);
}

TEST_F(Connection, OfTheSamePidAgainStartsAnew) {
    App app = watch(413);
    app.client->die();
    deliver();
    EXPECT_FALSE(QXProcessInfo::processForPid(413));
    App again = watch(413);
    EXPECT_TRUE(QXProcessInfo::processForPid(413));
}

TEST_F(Connection, AThousandThatComeAndGoLeaveNothing) {
    for (std::int32_t pid = 1000; pid < 2000; ++pid) {
        watch(pid).client->die();
        deliver();
    }
    EXPECT_EQ(device.messages.liveConnections(), 1u);
    EXPECT_EQ(device.regions.liveMappings(), 0u);
    EXPECT_EQ(hangState().watchedProcesses.size(), 0u);
}

}  // namespace
}  // namespace quorvix::test
