#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/MessageService.h"
#include "platform/sim/SimSharedMemory.h"

namespace quorvix::sim {

class SimConnection;
class SimListener;

// A dictionary that a simulated client sends. Keys and texts are copied; the shared memory is held.
class SimMessage {
public:
    SimMessage& int64(std::string_view key, std::int64_t value);
    SimMessage& uint64(std::string_view key, std::uint64_t value);
    SimMessage& string(std::string_view key, std::string_view text);
    SimMessage& boolean(std::string_view key, bool value);
    SimMessage& sharedMemory(std::string_view key, std::shared_ptr<SimSharedMemory> memory);

    // Views of the entries; valid while this message is neither changed nor destroyed.
    std::vector<MessageEntry> entries() const;

private:
    struct Entry {
        std::string key;
        MessageEntry value;
        std::string text;
        std::shared_ptr<SimSharedMemory> memory;
    };
    Entry& add(std::string_view key, MessageValueType type);

    std::vector<Entry> entries_;
};

// The client's end of a connection. Everything it does reaches the daemon as an event on the connection's target
// queue, in order; nothing more after it closed or died.
class SimClient {
public:
    explicit SimClient(std::shared_ptr<SimConnection> connection) : connection_(std::move(connection)) {}

    void send(SimMessage message);
    // A datagram that does not decode: an event of kind `other` with this description.
    void sendUndecodable(std::string_view description = "<undecodable message, 3 bytes: header cut short>");
    // The daemon's end sees an error of no special kind; the connection lives on.
    void failReceive(ErrorCode error);
    void interrupt();
    // The process ends: errorConnectionInvalid.
    void die();
    // The same event for the daemon: the process lives, its connection does not.
    void close() { die(); }

    std::int32_t pid() const;
    // Whether the daemon still holds its end's handler: a connection that is over must not.
    bool daemonHoldsHandler() const;

private:
    std::shared_ptr<SimConnection> connection_;
};

// The message service of a simulation: endpoints by name, clients made by the test. Every event is posted to its
// target queue and runs when the test lets that queue run; "%p" numbers are small and count up, so that they are the
// same in every run. Used on one thread; owned by the test and outlives the daemon's use of it.
class SimMessageService final : public MessageService {
public:
    SimMessageService() = default;
    ~SimMessageService() override;
    SimMessageService(const SimMessageService&) = delete;
    SimMessageService& operator=(const SimMessageService&) = delete;

    // What "%p" shows of each kind's type.
    static ObjectId typeIdOf(MessageEventKind kind);

    std::shared_ptr<MessageListener> makeListener(std::string_view endpoint,
                                                  const std::shared_ptr<WorkQueue>& queue) override;

    // A client connects. Before the listener was made and resumed, connections wait for it. pid: any, also 0 and -1.
    std::shared_ptr<SimClient> connect(std::string_view endpoint, std::int32_t pid);

    // The listener itself gets an event of this kind: an error, or `other`.
    void sendListenerEvent(std::string_view endpoint, MessageEventKind kind, std::string_view description,
                           std::int32_t pid = 0);
    // SIGTERM: every connection gets errorTerminationImminent.
    void terminationImminent();

    // The daemon's process ends: its listeners and its ends of all connections go, and what was on its way with them.
    void processEnded();

    std::uint64_t connectionsMade() const { return connectionsMade_; }
    // Connections whose invalid event was not delivered yet.
    std::uint64_t liveConnections() const;
    std::uint64_t eventsDelivered() const { return eventsDelivered_; }
    // Events of connections that nobody resumed.
    std::uint64_t eventsWaiting() const;
    bool hasListener(std::string_view endpoint) const { return listeners_.contains(std::string(endpoint)); }
    // The number that the next event gets: it shows as the event's "%p".
    std::uint64_t nextObjectId() const { return nextObjectId_; }

private:
    friend class SimConnection;
    friend class SimListener;
    friend class SimClient;
    ObjectId makeObjectId() { return {nextObjectId_++}; }

    std::map<std::string, std::shared_ptr<SimListener>> listeners_;
    std::map<std::string, std::vector<std::shared_ptr<SimConnection>>> waiting_;
    std::vector<std::weak_ptr<SimConnection>> connections_;
    std::uint64_t nextObjectId_ = 1;
    std::uint64_t connectionsMade_ = 0;
    std::uint64_t eventsDelivered_ = 0;
};

}  // namespace quorvix::sim
