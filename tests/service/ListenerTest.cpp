#include "service/MessageHandlers.h"
#include "tests/support/DaemonWorld.h"

namespace quorvix::test {
namespace {

using ::testing::ElementsAre;

class Listener : public DaemonWorld {
protected:
    void SetUp() override { startWithHangTracing(); }
    void sendEvent(MessageEventKind kind, std::string_view description, std::int32_t pid = 0) {
        device.messages.sendListenerEvent(kEndpoint, kind, description, pid);
        device.scheduler.runPending();
    }
    void expectOnlyLine(std::string_view text, LogLevel level) {
        EXPECT_THAT(texts(), ElementsAre(text));
        EXPECT_EQ(levelOf(text), level);
    }
};

TEST_F(Listener, NotesANewConnectionWithItsPid) {
    const auto client = connect(412);
    expectOnlyLine("VEX: Client started new connection: pid 412", LogLevel::info);
    EXPECT_TRUE(client->daemonHoldsHandler());
}

TEST_F(Listener, AcceptsConnectionsOfAnyPid) {
    connect(0);
    connect(-1);
    EXPECT_THAT(texts(),
                ElementsAre("VEX: Client started new connection: pid 0", "VEX: Client started new connection: pid -1"));
}

TEST_F(Listener, ServesItsConnectionsOnTheDaemonsQueue) {
    const auto client = connect(412);
    device.log.clear();
    client->send(sim::SimMessage{}.int64("command", 6));
    EXPECT_EQ(texts().size(), 0u) << "handled on the caller's stack";
    device.scheduler.runPending();
    EXPECT_THAT(texts(), ElementsAre("QXFenceTracking: Fence begin"));
}

TEST_F(Listener, InvalidStopsWatchingTheEventsOwnPid) {
    watch(412);
    watch(413);
    device.log.clear();
    sendEvent(MessageEventKind::errorConnectionInvalid, "Connection invalid", 412);
    EXPECT_EQ(texts()[0], "vex_error_connection_invalid Connection invalid - stop watching pid 412");
    EXPECT_EQ(levelOf(texts()[0]), LogLevel::info);
    EXPECT_FALSE(QXProcessInfo::processForPid(412));
    EXPECT_TRUE(QXProcessInfo::processForPid(413));
}

TEST_F(Listener, InvalidWithoutAPidIsHarmless) {
    watch(412);
    device.log.clear();
    sendEvent(MessageEventKind::errorConnectionInvalid, "Connection invalid");
    expectOnlyLine("vex_error_connection_invalid Connection invalid - stop watching pid 0", LogLevel::info);
    EXPECT_TRUE(QXProcessInfo::processForPid(412));
}

TEST_F(Listener, NotesAnInterruption) {
    sendEvent(MessageEventKind::errorConnectionInterrupted, "Connection interrupted");
    expectOnlyLine("vex_error_connection_interrupted: Connection interrupted", LogLevel::standard);
}

TEST_F(Listener, NotesAnyOtherErrorWithTheEvent) {
    const auto id = device.messages.nextObjectId();
    sendEvent(MessageEventKind::errorOther, "Too many open files");
    expectOnlyLine(formatText("quorvixd: Connection error: %p : %s", ObjectId{id}, "Too many open files"),
                   LogLevel::standard);
}

TEST_F(Listener, TerminationIsAnErrorLikeAnyOtherHere) {
    const auto id = device.messages.nextObjectId();
    sendEvent(MessageEventKind::errorTerminationImminent, "Termination imminent");
    expectOnlyLine(formatText("quorvixd: Connection error: %p : %s", ObjectId{id}, "Termination imminent"),
                   LogLevel::standard);
}

TEST_F(Listener, NotesTheTypeOfAnUnknownEvent) {
    sendEvent(MessageEventKind::other, "<something>");
    const ObjectId type = sim::SimMessageService::typeIdOf(MessageEventKind::other);
    expectOnlyLine(formatText("quorvixd: unknown event type : %p", type), LogLevel::standard);
}

TEST_F(Listener, ADictionaryIsAnUnknownEventHere) {
    const MessageDictionary dictionary({}, {7});
    handleListenerEvent({.kind = MessageEventKind::dictionary, .dictionary = &dictionary, .typeId = {0x2a}});
    expectOnlyLine("quorvixd: unknown event type : 0x2a", LogLevel::standard);
}

}  // namespace
}  // namespace quorvix::test
