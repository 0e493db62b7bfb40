#include <gtest/gtest.h>
#include <unistd.h>

#include <future>
#include <memory>
#include <string>
#include <vector>

#include "platform/linux/MessageService.h"
#include "platform/linux/QueueService.h"
#include "platform/sim/SimLifecycle.h"
#include "platform/sim/SimLog.h"
#include "platform/sim/SimMessageService.h"
#include "platform/sim/SimQueueService.h"
#include "tests/support/MessageSocket.h"
#include "tests/support/MessageTestSupport.h"
#include "tests/support/TemporaryFolder.h"

namespace quorvix::message_service_contract {
namespace {

using Kind = MessageEventKind;
using tests::EventRecorder;

constexpr const char* kEndpoint = "com.norvane.test";

// A harness: the service with one queue, clients of this very process, and a way to let what is due happen.
class LinuxWorld {
public:
    class Client {
    public:
        explicit Client(tests::Descriptor socket) : socket_(std::move(socket)) {}
        void sendNumber(std::int64_t n) { ASSERT_TRUE(tests::sendNumber(socket_.get(), n)); }
        void sendEverything(std::uint64_t memoryBytes) {
            const tests::Descriptor memory = tests::makeMemory(memoryBytes);
            const int descriptor = memory.get();
            const auto message = tests::MessageEncoder{}
                                     .int64("signed", -5)
                                     .uint64("unsigned", UINT64_MAX)
                                     .string("text", "main")
                                     .boolean("flag", true)
                                     .sharedMemory("memory", 0);
            ASSERT_TRUE(tests::sendDatagram(socket_.get(), message.bytes(), std::span(&descriptor, 1)));
        }
        void sendUndecodable() {
            const std::uint8_t bytes[] = {'V', 'E', 'X'};
            ASSERT_TRUE(tests::sendDatagram(socket_.get(), bytes));
        }
        void leave() { socket_.reset(); }

    private:
        tests::Descriptor socket_;
    };

    LinuxWorld()
        : service(log, lifecycle, regions, {.runDirectory = folder.path(), .limits = {}}),
          queues(std::make_unique<linuxos::LinuxQueueService>()),
          queue(queues->makeSerialQueue("test", QualityOfService::standard)) {}
    // The threads end before anything that they use.
    ~LinuxWorld() { queues.reset(); }

    void giveMainThread() { queues->start(); }
    std::unique_ptr<Client> connect() { return std::make_unique<Client>(tests::connectTo(folder.path(kEndpoint))); }
    std::int32_t clientPid() const { return getpid(); }
    void terminationImminent() { service.terminationImminent(); }
    bool waitFor(const EventRecorder& recorder, Kind kind, std::size_t count) {
        return recorder.waitForCount(kind, count);
    }
    // The handler holds its connection here, so that the connection's life tells the handler's.
    bool holdsHandler(const Client&, const EventRecorder& recorder) const { return recorder.connectionExists(1); }
    // Keeps the queue busy until release(), so that what happens meanwhile is found all at once.
    void hold() {
        queue->async([gate = gate_.get_future().share()] { gate.wait(); });
    }
    void release() { gate_.set_value(); }
    // Everything posted to the queue so far has run.
    void settle() {
        EventRecorder barrier;
        queue->async([&] { barrier.record({}, 0); });
        barrier.waitForCount(Kind::other, 1);
    }

    tests::TemporaryFolder folder;
    sim::SimLog log;
    sim::SimLifecycle lifecycle;
    linuxos::MappedRegions regions;
    linuxos::LinuxMessageService service;
    std::unique_ptr<linuxos::LinuxQueueService> queues;
    std::shared_ptr<WorkQueue> queue;

private:
    std::promise<void> gate_;
};

class SimWorld {
public:
    class Client {
    public:
        Client(std::shared_ptr<sim::SimClient> client, sim::SimRegionMemory& regions)
            : client_(std::move(client)), regions_(regions) {}
        void sendNumber(std::int64_t n) { client_->send(sim::SimMessage{}.int64("n", n)); }
        void sendEverything(std::uint64_t memoryBytes) {
            client_->send(sim::SimMessage{}
                              .int64("signed", -5)
                              .uint64("unsigned", UINT64_MAX)
                              .string("text", "main")
                              .boolean("flag", true)
                              .sharedMemory("memory", std::make_shared<sim::SimSharedMemory>(regions_, memoryBytes)));
        }
        void sendUndecodable() { client_->sendUndecodable(); }
        void leave() { client_->die(); }
        bool daemonHoldsHandler() const { return client_->daemonHoldsHandler(); }

    private:
        std::shared_ptr<sim::SimClient> client_;
        sim::SimRegionMemory& regions_;
    };

    void giveMainThread() { queues.giveMainThread(); }
    std::unique_ptr<Client> connect() {
        return std::make_unique<Client>(service.connect(kEndpoint, clientPid()), regions);
    }
    std::int32_t clientPid() const { return 500; }
    void terminationImminent() { service.terminationImminent(); }
    bool waitFor(const EventRecorder& recorder, Kind kind, std::size_t count) {
        settle();
        return recorder.count(kind) >= count;
    }
    bool holdsHandler(const Client& client, const EventRecorder&) const { return client.daemonHoldsHandler(); }
    void hold() {}
    void release() {}
    void settle() { scheduler.runPending(); }

    sim::SimScheduler scheduler;
    sim::SimQueueService queues{scheduler};
    sim::SimRegionMemory regions;
    sim::SimMessageService service;
    std::shared_ptr<WorkQueue> queue = queues.makeSerialQueue("test", QualityOfService::standard);
};

template <class World>
class MessageServiceContract : public testing::Test {
protected:
    void listen(EventRecorder::Extra extra = {}) {
        listener_ = world_.service.makeListener(kEndpoint, world_.queue);
        recorder_.attach(*listener_, world_.queue, std::move(extra));
        world_.giveMainThread();
    }
    auto connected() {
        const std::size_t before = recorder_.count(Kind::newConnection);
        auto client = world_.connect();
        EXPECT_TRUE(world_.waitFor(recorder_, Kind::newConnection, before + 1));
        return client;
    }
    bool waitFor(Kind kind, std::size_t count) { return world_.waitFor(recorder_, kind, count); }

    EventRecorder recorder_;
    World world_;
    std::shared_ptr<MessageListener> listener_;
};

using Worlds = testing::Types<LinuxWorld, SimWorld>;
TYPED_TEST_SUITE(MessageServiceContract, Worlds);

TYPED_TEST(MessageServiceContract, NewConnectionCarriesThePeersPid) {
    this->listen();
    const auto client = this->connected();
    EXPECT_EQ(this->recorder_.events().at(0).pid, this->world_.clientPid());
}

TYPED_TEST(MessageServiceContract, MessagesArriveInTheOrderTheyWereSent) {
    this->listen();
    const auto client = this->connected();
    for (int n = 0; n < 100; ++n) client->sendNumber(n);
    ASSERT_TRUE(this->waitFor(Kind::dictionary, 100));
    std::vector<std::int64_t> expected;
    for (int n = 0; n < 100; ++n) expected.push_back(n);
    EXPECT_EQ(this->recorder_.sequence(1), expected);
}

TYPED_TEST(MessageServiceContract, ValuesKeepTheirTypesAndOthersReadAsAbsent) {
    std::string findings;
    this->listen([&](const MessageEvent& event) {
        if (!event.dictionary) return;
        const MessageDictionary& message = *event.dictionary;
        const auto note = [&](bool holds, const char* what) {
            if (!holds) findings += std::string(what) + "; ";
        };
        note(message.int64("signed") == -5, "signed");
        note(message.uint64("unsigned") == UINT64_MAX, "unsigned");
        note(message.string("text") == "main", "text");
        note(message.boolean("flag"), "flag");
        note(message.sharedMemory("memory") != nullptr, "memory");
        note(message.uint64("signed") == 0, "int64 read as uint64");
        note(message.int64("unsigned") == 0, "uint64 read as int64");
        note(!message.string("signed"), "int64 read as string");
        note(!message.boolean("signed"), "int64 read as bool");
        note(message.sharedMemory("text") == nullptr, "string read as memory");
        note(message.int64("missing") == 0 && !message.string("missing"), "missing");
    });
    const auto client = this->connected();
    client->sendEverything(100);
    ASSERT_TRUE(this->waitFor(Kind::dictionary, 1));
    EXPECT_EQ(findings, "");
}

TYPED_TEST(MessageServiceContract, SharedMemoryMapsWithItsTrueLengthAndEveryMapIsNew) {
    SharedMemoryMapping first;
    SharedMemoryMapping second;
    this->listen([&](const MessageEvent& event) {
        if (!event.dictionary) return;
        first = event.dictionary->sharedMemory("memory")->map();
        second = event.dictionary->sharedMemory("memory")->map();
    });
    const auto client = this->connected();
    client->sendEverything(100);
    ASSERT_TRUE(this->waitFor(Kind::dictionary, 1));
    EXPECT_EQ(first.length, 100u);
    EXPECT_EQ(second.length, 100u);
    EXPECT_NE(first.address, second.address);
    this->world_.regions.unmap(first.address, first.length);
    this->world_.regions.unmap(second.address, second.length);
}

TYPED_TEST(MessageServiceContract, AnUndecodableMessageIsADescribedEventAndTheConnectionLives) {
    this->listen();
    const auto client = this->connected();
    client->sendUndecodable();
    client->sendNumber(7);
    ASSERT_TRUE(this->waitFor(Kind::dictionary, 1));
    EXPECT_EQ(this->recorder_.kinds(1), (std::vector{Kind::other, Kind::dictionary}));
    EXPECT_EQ(this->recorder_.events().at(1).description, "<undecodable message, 3 bytes: header cut short>");
}

TYPED_TEST(MessageServiceContract, WhatWasSentBeforeTheEndComesBeforeTheInvalidEvent) {
    this->listen();
    const auto client = this->connected();
    for (int n = 0; n < 5; ++n) client->sendNumber(n);
    client->leave();
    ASSERT_TRUE(this->waitFor(Kind::errorConnectionInvalid, 1));
    EXPECT_EQ(this->recorder_.sequence(1).size(), 5u);
    EXPECT_EQ(this->recorder_.kinds(1).back(), Kind::errorConnectionInvalid);
    EXPECT_EQ(this->recorder_.events().back().pid, this->world_.clientPid());
}

TYPED_TEST(MessageServiceContract, AnEndedConnectionAndItsHandlerAreLetGo) {
    this->listen();
    const auto client = this->connected();
    EXPECT_TRUE(this->world_.holdsHandler(*client, this->recorder_));
    client->leave();
    ASSERT_TRUE(this->waitFor(Kind::errorConnectionInvalid, 1));
    this->world_.settle();
    EXPECT_FALSE(this->world_.holdsHandler(*client, this->recorder_));
}

TYPED_TEST(MessageServiceContract, AnEarlierEndOfAPidComesBeforeItsNewConnection) {
    this->listen();
    auto first = this->connected();
    this->world_.hold();
    for (int n = 0; n < 3; ++n) first->sendNumber(n);
    first->leave();
    const auto second = this->world_.connect();
    this->world_.release();
    ASSERT_TRUE(this->waitFor(Kind::newConnection, 2));
    ASSERT_TRUE(this->waitFor(Kind::errorConnectionInvalid, 1));
    std::vector<Kind> order;
    for (const auto& event : this->recorder_.events()) order.push_back(event.kind);
    EXPECT_EQ(order, (std::vector{Kind::newConnection, Kind::dictionary, Kind::dictionary, Kind::dictionary,
                                  Kind::errorConnectionInvalid, Kind::newConnection}));
}

TYPED_TEST(MessageServiceContract, TerminationReachesEveryLiveConnection) {
    this->listen();
    const auto first = this->connected();
    const auto second = this->connected();
    const auto third = this->connected();
    third->leave();
    ASSERT_TRUE(this->waitFor(Kind::errorConnectionInvalid, 1));
    this->world_.terminationImminent();
    ASSERT_TRUE(this->waitFor(Kind::errorTerminationImminent, 2));
    this->world_.settle();
    EXPECT_EQ(this->recorder_.kinds(1), std::vector{Kind::errorTerminationImminent});
    EXPECT_EQ(this->recorder_.kinds(2), std::vector{Kind::errorTerminationImminent});
    EXPECT_EQ(this->recorder_.kinds(3), std::vector{Kind::errorConnectionInvalid});
}

TYPED_TEST(MessageServiceContract, NothingIsDeliveredBeforeTheMainThreadIsGivenAway) {
    this->listener_ = this->world_.service.makeListener(kEndpoint, this->world_.queue);
    this->recorder_.attach(*this->listener_, this->world_.queue);
    const auto client = this->world_.connect();
    client->sendNumber(1);
    EXPECT_TRUE(this->recorder_.events().empty());
    this->world_.giveMainThread();
    EXPECT_TRUE(this->waitFor(Kind::dictionary, 1));
}

TYPED_TEST(MessageServiceContract, AConnectionThatIsNotResumedDeliversNothing) {
    std::shared_ptr<MessageConnection> kept;
    this->listener_ = this->world_.service.makeListener(kEndpoint, this->world_.queue);
    this->listener_->setEventHandler([&](const MessageEvent& event) {
        this->recorder_.record(event, 0);
        kept = event.connection;
        kept->setEventHandler([&](const MessageEvent& inner) { this->recorder_.record(inner, 1); });
    });
    this->listener_->resume();
    this->world_.giveMainThread();
    const auto client = this->connected();
    client->sendNumber(1);
    this->world_.settle();
    EXPECT_TRUE(this->recorder_.kinds(1).empty());
    this->world_.queue->async([&] { kept->resume(); });
    EXPECT_TRUE(this->waitFor(Kind::dictionary, 1));
}

TYPED_TEST(MessageServiceContract, TypesOfEventsHaveAnIdEach) {
    this->listen();
    const auto client = this->connected();
    client->sendNumber(1);
    client->sendUndecodable();
    client->sendUndecodable();
    ASSERT_TRUE(this->waitFor(Kind::other, 2));
    const auto events = this->recorder_.events();
    EXPECT_NE(events.at(1).typeId, events.at(2).typeId);
    EXPECT_EQ(events.at(2).typeId, events.at(3).typeId);
    EXPECT_NE(events.at(1).id, 0u);
}

}  // namespace
}  // namespace quorvix::message_service_contract
