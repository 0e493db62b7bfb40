#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/MessageService.h"

namespace quorvix::tests {

// A copy of an event: what a handler was given, kept past its return.
struct SeenEvent {
    MessageEventKind kind = MessageEventKind::other;
    std::int32_t pid = 0;
    std::string description;
    std::map<std::string, std::int64_t> numbers;
    std::map<std::string, std::string> texts;
    std::uint64_t id = 0;
    std::uint64_t typeId = 0;
    // Which of the recorder's connections it came on; 0 is the listener.
    std::size_t source = 0;
};

// Keeps what a listener and its connections delivered, in order, across threads.
class EventRecorder {
public:
    using Extra = std::function<void(const MessageEvent&)>;

    void record(const MessageEvent& event, std::size_t source) {
        SeenEvent seen{.kind = event.kind,
                       .pid = event.pid,
                       .description = std::string(event.description),
                       .numbers = {},
                       .texts = {},
                       .id = event.id.value,
                       .typeId = event.typeId.value,
                       .source = source};
        if (event.dictionary) {
            for (const MessageEntry& entry : event.dictionary->entries()) {
                const std::string key(entry.key);
                if (entry.type == MessageValueType::int64) seen.numbers[key] = entry.signedValue;
                if (entry.type == MessageValueType::string) seen.texts[key] = entry.text;
            }
        }
        const std::lock_guard lock(mutex_);
        events_.push_back(std::move(seen));
        changed_.notify_all();
    }

    std::vector<SeenEvent> events() const {
        const std::lock_guard lock(mutex_);
        return events_;
    }
    std::vector<MessageEventKind> kinds(std::size_t source) const {
        std::vector<MessageEventKind> kinds;
        for (const SeenEvent& event : events()) {
            if (event.source == source) kinds.push_back(event.kind);
        }
        return kinds;
    }
    // The int64 values of "n" of one source's dictionaries, in order.
    std::vector<std::int64_t> sequence(std::size_t source) const {
        std::vector<std::int64_t> numbers;
        for (const SeenEvent& event : events()) {
            const auto found = event.numbers.find("n");
            if (event.source == source && found != event.numbers.end()) numbers.push_back(found->second);
        }
        return numbers;
    }
    std::size_t count(MessageEventKind kind) const {
        std::size_t number = 0;
        for (const SeenEvent& event : events()) number += event.kind == kind;
        return number;
    }
    // Waits for real threads; false after ten seconds.
    bool waitFor(const std::function<bool(const std::vector<SeenEvent>&)>& condition) const {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(10), [&] { return condition(events_); });
    }
    bool waitForCount(MessageEventKind kind, std::size_t number) const {
        return waitFor([&](const std::vector<SeenEvent>& events) {
            std::size_t found = 0;
            for (const SeenEvent& event : events) found += event.kind == kind;
            return found >= number;
        });
    }

    // Installs recording handlers on a listener; each connection is resumed on `queue`, holds itself through its
    // handler as the daemon's do, and gets the next source number. `extra` runs inside every connection event.
    void attach(MessageListener& listener, const std::shared_ptr<WorkQueue>& queue, Extra extra = {}) {
        listener.setEventHandler([this, queue, extra](const MessageEvent& event) {
            if (event.kind != MessageEventKind::newConnection) return record(event, 0);
            const std::size_t source = ++connections_;
            const std::shared_ptr<MessageConnection> connection = event.connection;
            connection->setTargetQueue(queue);
            connection->setEventHandler([this, connection, source, extra](const MessageEvent& inner) {
                if (extra) extra(inner);
                record(inner, source);
            });
            {
                const std::lock_guard lock(mutex_);
                weak_.push_back(connection);
            }
            // Last: whoever waits for it finds everything in place.
            record(event, 0);
            connection->resume();
        });
        listener.resume();
    }

    bool connectionExists(std::size_t source) const {
        const std::lock_guard lock(mutex_);
        return source <= weak_.size() && !weak_[source - 1].expired();
    }

private:
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<SeenEvent> events_;
    std::vector<std::weak_ptr<MessageConnection>> weak_;
    std::size_t connections_ = 0;
};

}  // namespace quorvix::tests
