#pragma once

#include <algorithm>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/Notifications.h"
#include "platform/sim/Faults.h"

namespace quorvix::sim {

// Notifications by direct posting: post() puts one delivery for each living registration of the name on its queue, in
// the order of registration. Records every registration, cancelled ones included. "registerHandler" can fail.
class SimNotifications : public NotificationService {
public:
    struct Registration {
        std::string name;
        std::string queueLabel;
        bool operator==(const Registration&) const = default;
    };

    void post(std::string_view name) {
        ++posts_;
        for (const std::shared_ptr<Listener>& listener : living()) {
            if (listener->name != name) continue;
            listener->queue->async([weak = std::weak_ptr<Listener>(listener)] {
                // Held while it runs: the handler may drop its own token.
                if (const std::shared_ptr<Listener> held = weak.lock()) held->handler();
            });
        }
    }

    // Every registration that was ever asked for and given, in order.
    const std::vector<Registration>& registrations() const { return registrations_; }
    // The names that a post reaches now, in order of registration.
    std::vector<std::string> livingNames() {
        std::vector<std::string> names;
        for (const auto& listener : living()) names.push_back(listener->name);
        return names;
    }
    std::uint64_t posts() const { return posts_; }

    std::unique_ptr<NotificationToken> registerHandler(std::string_view name, const std::shared_ptr<WorkQueue>& queue,
                                                       Work handler) override {
        if (faults.take("registerHandler")) return nullptr;
        registrations_.push_back({std::string(name), queue->label()});
        const auto listener = std::make_shared<Listener>(Listener{std::string(name), queue, std::move(handler)});
        listeners_.push_back(listener);
        return std::make_unique<Token>(listener);
    }

    Faults faults;

private:
    struct Listener {
        std::string name;
        std::shared_ptr<WorkQueue> queue;
        Work handler;
    };
    // The one owner of its listener, so that a delivery already queued finds it gone.
    class Token : public NotificationToken {
    public:
        explicit Token(std::shared_ptr<Listener> listener) : listener_(std::move(listener)) {}

    private:
        std::shared_ptr<Listener> listener_;
    };

    std::vector<std::shared_ptr<Listener>> living() {
        std::erase_if(listeners_, [](const auto& weak) { return weak.expired(); });
        std::vector<std::shared_ptr<Listener>> held;
        for (const auto& weak : listeners_) held.push_back(weak.lock());
        return held;
    }

    std::vector<std::weak_ptr<Listener>> listeners_;
    std::vector<Registration> registrations_;
    std::uint64_t posts_ = 0;
};

}  // namespace quorvix::sim
