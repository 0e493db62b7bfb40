#include "platform/linux/MessageService.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <future>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/linux/QueueService.h"
#include "platform/sim/SimLifecycle.h"
#include "platform/sim/SimLog.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/MessageSocket.h"
#include "tests/support/MessageTestSupport.h"
#include "tests/support/TemporaryFolder.h"

namespace quorvix::linuxos {
namespace {

using Event = MessageEventKind;
using tests::ChildProcess;
using tests::connectTo;
using tests::sendDatagram;
using tests::sendNumber;

constexpr const char* kEndpoint = "com.norvane.test";

std::uint64_t counterOf(const JsonObject& counters, std::string_view name) {
    for (const auto& [key, value] : counters.members()) {
        if (key == name) {
            const auto* number = std::get_if<std::uint64_t>(&value.content());
            return number ? *number : UINT64_MAX;
        }
    }
    return UINT64_MAX;
}

// The real service on a real queue; clients are bare sockets and child processes.
class MessageServiceTest : public testing::Test {
protected:
    ~MessageServiceTest() override { queues_.reset(); }

    void listen(ConnectionTable::Limits limits = {}) {
        service_ = std::make_unique<LinuxMessageService>(log_, lifecycle_, regions_,
                                                         LinuxMessageService::Options{folder_.path(), limits});
        queues_ = std::make_unique<LinuxQueueService>();
        queue_ = queues_->makeSerialQueue("test", QualityOfService::standard);
        listener_ = service_->makeListener(kEndpoint, queue_);
        recorder_.attach(*listener_, queue_);
        queues_->start();
    }
    std::string path() const { return folder_.path(kEndpoint); }
    std::uint64_t counter(std::string_view name) const { return counterOf(service_->selfCounters(), name); }
    // A connection that the daemon has seen.
    Descriptor connected() {
        const std::size_t before = recorder_.count(Event::newConnection);
        Descriptor socket = connectTo(path());
        EXPECT_TRUE(recorder_.waitForCount(Event::newConnection, before + 1));
        return socket;
    }
    // A child that connects, sends `datagrams` and then does `rest`.
    ChildProcess client(int datagrams, std::function<void(int socket)> rest = {}) {
        return ChildProcess([=, path = path()] {
            const int socket = connectTo(path).release();
            for (int n = 0; n < datagrams; ++n) sendNumber(socket, n);
            if (rest) rest(socket);
        });
    }
    // Keeps the queue busy until the promise is kept; it is busy when this returns.
    std::promise<void> hold() {
        std::promise<void> gate;
        auto held = std::make_shared<std::promise<void>>();
        queue_->async([opened = gate.get_future().share(), held] {
            held->set_value();
            opened.wait();
        });
        held->get_future().wait();
        return gate;
    }
    std::string lastDescription() const { return recorder_.events().back().description; }

    tests::TemporaryFolder folder_;
    sim::SimLog log_;
    sim::SimLifecycle lifecycle_;
    MappedRegions regions_;
    tests::EventRecorder recorder_;
    std::unique_ptr<LinuxMessageService> service_;
    std::unique_ptr<LinuxQueueService> queues_;
    std::shared_ptr<WorkQueue> queue_;
    std::shared_ptr<MessageListener> listener_;
};

TEST_F(MessageServiceTest, EverybodyMayConnect) {
    listen();
    struct stat status {};
    ASSERT_EQ(stat(path().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, S_IFSOCK | 0666u);
}

TEST_F(MessageServiceTest, ThePidIsTheChilds) {
    listen();
    const ChildProcess child = client(1);
    ASSERT_TRUE(recorder_.waitForCount(Event::errorConnectionInvalid, 1));
    for (const auto& event : recorder_.events()) EXPECT_EQ(event.pid, child.pid());
}

TEST_F(MessageServiceTest, AClientKilledAtAnyMomentEndsAfterAllThatItHadSent) {
    listen();
    for (int datagrams = 0; datagrams < 8; ++datagrams) {
        ChildProcess child = client(datagrams, [](int) { raise(SIGKILL); });
        child.wait();
        const std::size_t source = static_cast<std::size_t>(datagrams) + 1;
        ASSERT_TRUE(recorder_.waitForCount(Event::errorConnectionInvalid, source));
        EXPECT_EQ(recorder_.sequence(source).size(), static_cast<std::size_t>(datagrams));
        EXPECT_EQ(recorder_.kinds(source).back(), Event::errorConnectionInvalid);
    }
}

TEST_F(MessageServiceTest, APeerThatIsGoneBeforeItWasAcceptedStillDeliversAndEnds) {
    listen();
    auto gate = hold();
    ChildProcess child = client(3, [](int) { raise(SIGKILL); });
    child.wait();
    gate.set_value();
    ASSERT_TRUE(recorder_.waitForCount(Event::errorConnectionInvalid, 1));
    EXPECT_EQ(recorder_.kinds(1),
              (std::vector{Event::dictionary, Event::dictionary, Event::dictionary, Event::errorConnectionInvalid}));
}

TEST_F(MessageServiceTest, APeersDeathEndsTheConnectionThoughItsChildKeepsTheSocket) {
    listen();
    ChildProcess child = client(2, [](int) {
        if (fork() == 0) {
            alarm(20);  // Never outlives the test by much.
            for (;;) pause();
        }
    });
    ASSERT_TRUE(recorder_.waitForCount(Event::errorConnectionInvalid, 1));
    EXPECT_EQ(recorder_.sequence(1).size(), 2u);
    child.killGroup();
}

TEST_F(MessageServiceTest, AChildThatInheritedTheSocketAndKeepsSendingCannotProlongIt) {
    listen();
    ChildProcess child = client(1, [](int socket) {
        if (fork() == 0) {
            alarm(20);
            for (int n = 0; sendNumber(socket, n); ++n) {
            }
            _exit(0);
        }
        usleep(20000);
    });
    ASSERT_TRUE(recorder_.waitForCount(Event::errorConnectionInvalid, 1));
    child.killGroup();
    EXPECT_EQ(recorder_.kinds(1).back(), Event::errorConnectionInvalid);
    EXPECT_EQ(counter("connections"), 0u);
}

TEST_F(MessageServiceTest, DatagramsReadAfterADeathAreBoundedAndTheCutIsCounted) {
    listen({.datagramsAtDeath = 3});
    for (const int datagrams : {2, 6}) {
        auto gate = hold();
        ChildProcess child = client(datagrams, [](int) {
            // With a process that holds the socket, only the bound or an empty queue ends the reading.
            if (fork() == 0) {
                alarm(20);
                for (;;) pause();
            }
        });
        child.wait();
        gate.set_value();
        ASSERT_TRUE(recorder_.waitForCount(Event::errorConnectionInvalid, datagrams == 2 ? 1 : 2));
        child.killGroup();
    }
    EXPECT_EQ(recorder_.sequence(1).size(), 2u);
    EXPECT_LT(recorder_.sequence(2).size(), 6u);
    EXPECT_EQ(counter("cutAtDeath"), 1u);
}

TEST_F(MessageServiceTest, AnEmptyDatagramIsAnEventAndNotTheEnd) {
    listen();
    const Descriptor socket = connected();
    ASSERT_TRUE(sendDatagram(socket.get(), {}));
    ASSERT_TRUE(sendNumber(socket.get(), 1));
    ASSERT_TRUE(recorder_.waitForCount(Event::dictionary, 1));
    EXPECT_EQ(recorder_.events().at(1).description, "<undecodable message, 0 bytes: empty>");
    EXPECT_EQ(counter("undecodable"), 1u);
}

TEST_F(MessageServiceTest, TheLongestDatagramArrivesAndALongerOneIsAnEvent) {
    listen();
    const Descriptor socket = connected();
    const std::size_t overhead = MessageEncoder{}.string("t", "").bytes().size();
    for (const std::size_t extra : {0u, 1u, 100000u}) {
        const std::string text(kMaximumDatagramBytes - overhead + extra, 'x');
        ASSERT_TRUE(sendDatagram(socket.get(), MessageEncoder{}.string("t", text).bytes()));
    }
    ASSERT_TRUE(recorder_.waitForCount(Event::other, 2));
    EXPECT_EQ(recorder_.kinds(1), (std::vector{Event::dictionary, Event::other, Event::other}));
    EXPECT_EQ(lastDescription(), "<undecodable message, more than 65536 bytes: longer than 65536 bytes>");
}

TEST_F(MessageServiceTest, AHalfClosedConnectionEnds) {
    listen();
    const Descriptor socket = connected();
    ASSERT_TRUE(sendNumber(socket.get(), 1));
    shutdown(socket.get(), SHUT_WR);
    ASSERT_TRUE(recorder_.waitForCount(Event::errorConnectionInvalid, 1));
    EXPECT_EQ(recorder_.kinds(1), (std::vector{Event::dictionary, Event::errorConnectionInvalid}));
}

TEST_F(MessageServiceTest, DescriptorsOfAMessageAreClosedWhetherItDecodesOrNot) {
    listen();
    const Descriptor socket = connected();
    const Descriptor memory = tests::makeMemory(100);
    const std::vector<int> one(1, memory.get());
    const std::vector<int> four(4, memory.get());
    const std::vector<int> five(5, memory.get());
    const auto named = MessageEncoder{}.sharedMemory("a", 0).bytes();
    const int before = tests::openDescriptors();
    ASSERT_TRUE(sendDatagram(socket.get(), named, one));
    ASSERT_TRUE(sendDatagram(socket.get(), named, four));
    ASSERT_TRUE(sendDatagram(socket.get(), named, five));
    ASSERT_TRUE(sendDatagram(socket.get(), named));
    ASSERT_TRUE(recorder_.waitForCount(Event::other, 3));
    hold().set_value();
    ASSERT_TRUE(sendNumber(socket.get(), 1));
    ASSERT_TRUE(recorder_.waitForCount(Event::dictionary, 2));
    EXPECT_EQ(tests::openDescriptors(), before);
    const auto events = recorder_.events();
    EXPECT_EQ(events.at(2).description, "<undecodable message, 12 bytes: descriptor that no entry names>");
    EXPECT_NE(events.at(3).description.find("more than 4"), std::string::npos);
    EXPECT_EQ(events.at(4).description, "<undecodable message, 12 bytes: descriptor missing for key \"a\">");
}

TEST_F(MessageServiceTest, NobodyIsReadTwiceBeforeTheOthersWereReadOnce) {
    listen();
    const Descriptor greedy = connected();
    const Descriptor modest = connected();
    auto gate = hold();
    for (int n = 0; n < 5; ++n) ASSERT_TRUE(sendNumber(greedy.get(), n, MSG_DONTWAIT));
    ASSERT_TRUE(sendNumber(modest.get(), 100));
    gate.set_value();
    ASSERT_TRUE(recorder_.waitForCount(Event::dictionary, 6));
    std::size_t ofGreedyBefore = 0;
    for (const auto& event : recorder_.events()) {
        if (event.kind == Event::dictionary && event.source == 2) break;
        ofGreedyBefore += event.kind == Event::dictionary;
    }
    EXPECT_LE(ofGreedyBefore, 1u);
}

TEST_F(MessageServiceTest, ConnectionsPastTheBoundAreClosedAndCounted) {
    listen({.connections = 3, .connectionsAUser = 1});
    std::vector<Descriptor> sockets;
    for (int n = 0; n < 3; ++n) sockets.push_back(connected());
    for (int n = 0; n < 3; ++n) {
        const Descriptor refused = connectTo(path());
        ASSERT_TRUE(refused);
        EXPECT_TRUE(tests::waitForHangUp(refused.get()));
    }
    EXPECT_EQ(counter("refusedFull"), 3u);
    EXPECT_EQ(recorder_.count(Event::newConnection), 3u);
    EXPECT_EQ(log_.texts("platform").size(), 2u) << "said at the first and the second only";
    // One that goes makes room.
    sockets.pop_back();
    ASSERT_TRUE(recorder_.waitForCount(Event::errorConnectionInvalid, 1));
    sockets.push_back(connected());
    EXPECT_EQ(counter("connections"), 3u);
}

TEST_F(MessageServiceTest, TheRealBoundsStand) {
    EXPECT_EQ(ConnectionTable::Limits{}.connections, 2048u);
    EXPECT_EQ(ConnectionTable::Limits{}.connectionsAUser, 1024u);
    EXPECT_EQ(ConnectionTable::Limits{}.datagramsAtDeath, 4096u);
}

TEST(ConnectionTableTest, AUserOtherThanRootHasABoundOfItsOwn) {
    sim::SimLog log;
    ConnectionTable table(log, {.connections = 4, .connectionsAUser = 2});
    EXPECT_TRUE(table.admit(1000));
    EXPECT_TRUE(table.admit(1000));
    EXPECT_FALSE(table.admit(1000));
    EXPECT_TRUE(table.admit(1001));
    EXPECT_TRUE(table.admit(0));
    EXPECT_FALSE(table.admit(0));
    table.leave(1000);
    EXPECT_TRUE(table.admit(0)) << "root is held by the bound of all only";
    EXPECT_FALSE(table.admit(1002));
    EXPECT_EQ(table.counters().refusedFull.load(), 3u);
}

TEST_F(MessageServiceTest, WithoutDescriptorsCallersAreClosedAndTheListenerComesBack) {
    listen();
    auto gate = hold();
    Descriptor caller = connectTo(path());
    std::vector<Descriptor> hoard = tests::takeAllDescriptors();
    gate.set_value();
    EXPECT_TRUE(tests::waitForHangUp(caller.get()));
    hoard.clear();
    EXPECT_EQ(counter("refusedNoDescriptor"), 1u);
    const Descriptor later = connected();
    EXPECT_TRUE(later);
}

TEST_F(MessageServiceTest, AFailedListenerIsToldWithPidZero) {
    listen();
    auto gate = hold();
    // The kernel says nothing of a listening socket that was shut down until something wakes its watcher: a caller
    // does.
    const Descriptor early = connectTo(path());
    // The test's way to the listening socket: this process's only one bound there.
    const int listening = tests::listeningDescriptor(path());
    ASSERT_GE(listening, 0);
    shutdown(listening, SHUT_RDWR);
    gate.set_value();
    ASSERT_TRUE(recorder_.waitForCount(Event::errorConnectionInvalid, 1));
    EXPECT_EQ(recorder_.events().back().source, 0u);
    EXPECT_EQ(recorder_.events().back().pid, 0);
    ASSERT_TRUE(sendNumber(early.get(), 1));
    EXPECT_TRUE(recorder_.waitForCount(Event::dictionary, 1)) << "connections outlive their listener";
}

TEST_F(MessageServiceTest, ALotOfClientsComingAndGoingLeaveNothingBehind) {
    listen();
    const int before = tests::openDescriptors();
    for (int round = 0; round < 20; ++round) {
        std::vector<Descriptor> sockets;
        for (int n = 0; n < 20; ++n) sockets.push_back(connectTo(path()));
        for (const Descriptor& socket : sockets) ASSERT_TRUE(sendNumber(socket.get(), 1));
    }
    ASSERT_TRUE(recorder_.waitForCount(Event::errorConnectionInvalid, 400));
    EXPECT_EQ(recorder_.count(Event::dictionary), 400u);
    EXPECT_EQ(counter("connections"), 0u);
    hold().set_value();
    EXPECT_EQ(tests::openDescriptors(), before);
}

}  // namespace
}  // namespace quorvix::linuxos
