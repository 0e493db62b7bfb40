#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "platform/SharedMemory.h"
#include "platform/TextFormat.h"
#include "platform/WorkQueue.h"

namespace quorvix {

enum class MessageValueType : std::uint8_t { int64 = 1, uint64 = 2, string = 3, boolean = 4, sharedMemory = 5 };

struct MessageEntry {
    std::string_view key;
    MessageValueType type = MessageValueType::int64;
    union {
        std::int64_t signedValue;
        std::uint64_t unsignedValue = 0;
        bool booleanValue;
        SharedMemory* sharedMemory;
    };
    std::string_view text;  // of a string; no NUL inside, any bytes otherwise
};

// One decoded message: typed values by key. A view: it and all it gives live until the event handler returns. Values
// come from a client and are untrusted. A key that is absent, or holds another type, reads as 0, nothing or false.
class MessageDictionary {
public:
    MessageDictionary(std::span<const MessageEntry> entries, ObjectId id) : entries_(entries), id_(id) {}

    std::int64_t int64(std::string_view key) const {
        const MessageEntry* entry = find(key, MessageValueType::int64);
        return entry ? entry->signedValue : 0;
    }
    std::uint64_t uint64(std::string_view key) const {
        const MessageEntry* entry = find(key, MessageValueType::uint64);
        return entry ? entry->unsignedValue : 0;
    }
    bool boolean(std::string_view key) const {
        const MessageEntry* entry = find(key, MessageValueType::boolean);
        return entry && entry->booleanValue;
    }
    std::optional<std::string_view> string(std::string_view key) const {
        const MessageEntry* entry = find(key, MessageValueType::string);
        return entry ? std::optional(entry->text) : std::nullopt;
    }
    SharedMemory* sharedMemory(std::string_view key) const {
        const MessageEntry* entry = find(key, MessageValueType::sharedMemory);
        return entry ? entry->sharedMemory : nullptr;
    }

    std::span<const MessageEntry> entries() const { return entries_; }
    // What "%p" shows of it.
    ObjectId id() const { return id_; }

private:
    const MessageEntry* find(std::string_view key, MessageValueType type) const {
        for (const MessageEntry& entry : entries_) {
            if (entry.key == key) return entry.type == type ? &entry : nullptr;
        }
        return nullptr;
    }

    std::span<const MessageEntry> entries_;
    ObjectId id_;
};

class MessageConnection;

enum class MessageEventKind {
    newConnection,
    dictionary,
    errorConnectionInvalid,
    errorConnectionInterrupted,
    errorTerminationImminent,
    errorOther,
    other,  // what is neither a dictionary nor an error, a datagram that does not decode among it
};

// An event as a listener or connection handler gets it. Lives until the handler returns.
struct MessageEvent {
    MessageEventKind kind = MessageEventKind::other;
    // Of a newConnection.
    std::shared_ptr<MessageConnection> connection = nullptr;
    // Of a dictionary.
    const MessageDictionary* dictionary = nullptr;
    // The pid that the service gives for the event itself; 0 for an event of the listener's own.
    std::int32_t pid = 0;
    // Description of the event's object: for an error its text, else what it holds. Empty for a dictionary, which
    // nobody describes on its way.
    std::string_view description = {};
    // What "%p" shows of the event, and of its type.
    ObjectId id = {};
    ObjectId typeId = {};
};

using MessageHandler = std::function<void(const MessageEvent&)>;

// One client's connection. Events come in order on the target queue; after errorConnectionInvalid no more come, and
// the service drops the handler (and with it what the handler holds, the connection itself as a rule).
class MessageConnection {
public:
    virtual ~MessageConnection() = default;
    // The peer's pid, as the kernel gives it at connect time.
    virtual std::int32_t pid() const = 0;
    // Both before resume(). One more connection may be accepted and never resumed: it delivers nothing.
    virtual void setTargetQueue(const std::shared_ptr<WorkQueue>& queue) = 0;
    virtual void setEventHandler(MessageHandler handler) = 0;
    virtual void resume() = 0;
};

class MessageListener {
public:
    virtual ~MessageListener() = default;
    virtual void setEventHandler(MessageHandler handler) = 0;
    virtual void resume() = 0;
};

class MessageService {
public:
    virtual ~MessageService() = default;
    // Opens the named endpoint as its listener; events come on `queue`. Does not return where the endpoint cannot be
    // had: the process then ends with a clear line and status 71.
    virtual std::shared_ptr<MessageListener> makeListener(std::string_view endpoint,
                                                          const std::shared_ptr<WorkQueue>& queue) = 0;
};

}  // namespace quorvix
