#pragma once

#include <string>
#include <vector>

#include "platform/PowerLog.h"

namespace quorvix::sim {

// The power log in memory: every event, in order. One thread.
class SimPowerLog : public PowerLog {
public:
    struct Event {
        std::int32_t category;
        std::string name;
        PowerLogDictionary dictionary;
    };

    void sendEvent(std::int32_t category, std::string_view name, const PowerLogDictionary& dictionary) override {
        events_.push_back({category, std::string(name), dictionary});
    }

    const std::vector<Event>& events() const { return events_; }
    void clear() { events_.clear(); }

private:
    std::vector<Event> events_;
};

}  // namespace quorvix::sim
