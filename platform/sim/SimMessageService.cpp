#include "platform/sim/SimMessageService.h"

#include <algorithm>
#include <optional>
#include <utility>

namespace quorvix::sim {

namespace {

// The connection errors' own texts, the same as the real service's.
constexpr std::string_view kInvalidText = "Connection invalid";
constexpr std::string_view kInterruptedText = "Connection interrupted";
constexpr std::string_view kTerminationText = "Termination imminent";

// An event that owns what a MessageEvent only views.
struct StoredEvent {
    MessageEventKind kind = MessageEventKind::other;
    std::shared_ptr<MessageConnection> connection;
    std::optional<SimMessage> message;
    std::int32_t pid = 0;
    std::string description;
    ObjectId id;
};

void deliverTo(const MessageHandler& handler, const StoredEvent& stored) {
    const std::vector<MessageEntry> entries = stored.message ? stored.message->entries() : std::vector<MessageEntry>{};
    const MessageDictionary dictionary(entries, stored.id);
    handler(MessageEvent{.kind = stored.kind,
                         .connection = stored.connection,
                         .dictionary = stored.message ? &dictionary : nullptr,
                         .pid = stored.pid,
                         .description = stored.description,
                         .id = stored.id,
                         .typeId = SimMessageService::typeIdOf(stored.kind)});
}

}  // namespace

// Events wait here until resume(), then go to the target queue one by one.
class SimConnection final : public MessageConnection, public std::enable_shared_from_this<SimConnection> {
public:
    SimConnection(SimMessageService& service, std::int32_t pid) : service_(service), pid_(pid) {}

    std::int32_t pid() const override { return pid_; }
    void setTargetQueue(const std::shared_ptr<WorkQueue>& queue) override { queue_ = queue; }
    void setEventHandler(MessageHandler handler) override { handler_ = std::move(handler); }
    void resume() override {
        if (std::exchange(resumed_, true)) return;
        for (StoredEvent& event : std::exchange(pending_, {})) post(std::move(event));
    }

    void arrive(MessageEventKind kind, std::string_view description, std::optional<SimMessage> message = {}) {
        if (std::exchange(closed_, closed_ || kind == MessageEventKind::errorConnectionInvalid)) return;
        StoredEvent event{.kind = kind,
                          .connection = nullptr,
                          .message = std::move(message),
                          .pid = pid_,
                          .description = std::string(description),
                          .id = service_.makeObjectId()};
        if (resumed_) {
            post(std::move(event));
        } else {
            pending_.push_back(std::move(event));
        }
    }

    // The simulated world ends: what the handler holds, this connection as a rule, goes.
    void dropHandler() { const MessageHandler dropped = std::exchange(handler_, nullptr); }

    bool holdsHandler() const { return handler_ != nullptr; }
    bool over() const { return over_; }
    std::uint64_t waiting() const { return pending_.size(); }

private:
    void post(StoredEvent event) {
        queue_->async([self = shared_from_this(), event = std::move(event)] { self->deliver(event); });
    }
    void deliver(const StoredEvent& event) {
        if (over_) return;
        ++service_.eventsDelivered_;
        if (handler_) deliverTo(handler_, event);
        if (event.kind != MessageEventKind::errorConnectionInvalid) return;
        over_ = true;
        // Only now, off the handler's own stack: what it holds may be this connection.
        const MessageHandler dropped = std::exchange(handler_, nullptr);
    }

    SimMessageService& service_;
    std::int32_t pid_;
    std::shared_ptr<WorkQueue> queue_;
    MessageHandler handler_;
    std::deque<StoredEvent> pending_;
    bool resumed_ = false;
    bool closed_ = false;
    bool over_ = false;
};

class SimListener final : public MessageListener, public std::enable_shared_from_this<SimListener> {
public:
    SimListener(SimMessageService& service, std::shared_ptr<WorkQueue> queue)
        : service_(service), queue_(std::move(queue)) {}

    void setEventHandler(MessageHandler handler) override { handler_ = std::move(handler); }
    void resume() override {
        if (std::exchange(resumed_, true)) return;
        for (StoredEvent& event : std::exchange(pending_, {})) post(std::move(event));
    }

    void arriveConnection(const std::shared_ptr<SimConnection>& connection) {
        connection->setTargetQueue(queue_);
        arrive({.kind = MessageEventKind::newConnection,
                .connection = connection,
                .message = {},
                .pid = connection->pid(),
                .description = "<connection from pid " + std::to_string(connection->pid()) + ">",
                .id = service_.makeObjectId()});
    }
    void arriveEvent(MessageEventKind kind, std::string_view description, std::int32_t pid) {
        arrive({.kind = kind,
                .connection = nullptr,
                .message = {},
                .pid = pid,
                .description = std::string(description),
                .id = service_.makeObjectId()});
    }
    std::uint64_t waiting() const { return pending_.size(); }

private:
    void arrive(StoredEvent event) {
        if (resumed_) {
            post(std::move(event));
        } else {
            pending_.push_back(std::move(event));
        }
    }
    void post(StoredEvent event) {
        queue_->async([self = shared_from_this(), event = std::move(event)] { self->deliver(event); });
    }
    void deliver(const StoredEvent& event) {
        if (!handler_) return;
        ++service_.eventsDelivered_;
        deliverTo(handler_, event);
        if (event.kind != MessageEventKind::errorConnectionInvalid) return;
        const MessageHandler dropped = std::exchange(handler_, nullptr);
    }

    SimMessageService& service_;
    std::shared_ptr<WorkQueue> queue_;
    MessageHandler handler_;
    std::deque<StoredEvent> pending_;
    bool resumed_ = false;
};

SimMessage::Entry& SimMessage::add(std::string_view key, MessageValueType type) {
    Entry& entry = entries_.emplace_back();
    entry.key = key;
    entry.value.type = type;
    return entry;
}

SimMessage& SimMessage::int64(std::string_view key, std::int64_t value) {
    add(key, MessageValueType::int64).value.signedValue = value;
    return *this;
}

SimMessage& SimMessage::uint64(std::string_view key, std::uint64_t value) {
    add(key, MessageValueType::uint64).value.unsignedValue = value;
    return *this;
}

SimMessage& SimMessage::string(std::string_view key, std::string_view text) {
    add(key, MessageValueType::string).text = text;
    return *this;
}

SimMessage& SimMessage::boolean(std::string_view key, bool value) {
    add(key, MessageValueType::boolean).value.booleanValue = value;
    return *this;
}

SimMessage& SimMessage::sharedMemory(std::string_view key, std::shared_ptr<SimSharedMemory> memory) {
    add(key, MessageValueType::sharedMemory).memory = std::move(memory);
    return *this;
}

std::vector<MessageEntry> SimMessage::entries() const {
    std::vector<MessageEntry> views;
    for (const Entry& entry : entries_) {
        MessageEntry& view = views.emplace_back(entry.value);
        view.key = entry.key;
        view.text = entry.text;
        if (entry.value.type == MessageValueType::sharedMemory) view.sharedMemory = entry.memory.get();
    }
    return views;
}

void SimClient::send(SimMessage message) { connection_->arrive(MessageEventKind::dictionary, {}, std::move(message)); }

void SimClient::sendUndecodable(std::string_view description) {
    connection_->arrive(MessageEventKind::other, description);
}

void SimClient::failReceive(ErrorCode error) { connection_->arrive(MessageEventKind::errorOther, error.text()); }

void SimClient::interrupt() { connection_->arrive(MessageEventKind::errorConnectionInterrupted, kInterruptedText); }

void SimClient::die() { connection_->arrive(MessageEventKind::errorConnectionInvalid, kInvalidText); }

std::int32_t SimClient::pid() const { return connection_->pid(); }

bool SimClient::daemonHoldsHandler() const { return connection_->holdsHandler(); }

ObjectId SimMessageService::typeIdOf(MessageEventKind kind) {
    // Far from the numbers of objects, which count up from 1.
    return {0x1000000 + static_cast<std::uint64_t>(kind)};
}

SimMessageService::~SimMessageService() { processEnded(); }

void SimMessageService::processEnded() {
    for (const auto& weak : connections_) {
        if (const auto connection = weak.lock()) connection->dropHandler();
    }
    connections_.clear();
    listeners_.clear();
    waiting_.clear();
}

std::shared_ptr<MessageListener> SimMessageService::makeListener(std::string_view endpoint,
                                                                 const std::shared_ptr<WorkQueue>& queue) {
    auto listener = std::make_shared<SimListener>(*this, queue);
    listeners_[std::string(endpoint)] = listener;
    for (const auto& connection : std::exchange(waiting_[std::string(endpoint)], {})) {
        listener->arriveConnection(connection);
    }
    return listener;
}

std::shared_ptr<SimClient> SimMessageService::connect(std::string_view endpoint, std::int32_t pid) {
    auto connection = std::make_shared<SimConnection>(*this, pid);
    ++connectionsMade_;
    std::erase_if(connections_, [](const auto& known) { return known.expired(); });
    connections_.push_back(connection);
    const auto listener = listeners_.find(std::string(endpoint));
    if (listener == listeners_.end()) {
        waiting_[std::string(endpoint)].push_back(connection);
    } else {
        listener->second->arriveConnection(connection);
    }
    return std::make_shared<SimClient>(connection);
}

void SimMessageService::sendListenerEvent(std::string_view endpoint, MessageEventKind kind,
                                          std::string_view description, std::int32_t pid) {
    const auto listener = listeners_.find(std::string(endpoint));
    if (listener != listeners_.end()) listener->second->arriveEvent(kind, description, pid);
}

void SimMessageService::terminationImminent() {
    for (const auto& known : connections_) {
        if (const auto connection = known.lock()) {
            connection->arrive(MessageEventKind::errorTerminationImminent, kTerminationText);
        }
    }
}

std::uint64_t SimMessageService::liveConnections() const {
    return static_cast<std::uint64_t>(std::ranges::count_if(connections_, [](const auto& known) {
        const auto connection = known.lock();
        return connection && !connection->over();
    }));
}

std::uint64_t SimMessageService::eventsWaiting() const {
    std::uint64_t count = 0;
    for (const auto& known : connections_) {
        if (const auto connection = known.lock()) count += connection->waiting();
    }
    return count;
}

}  // namespace quorvix::sim
