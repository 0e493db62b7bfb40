#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "platform/MessageService.h"
#include "platform/PropertyList.h"
#include "platform/ResourceUsage.h"
#include "platform/VMStatistics.h"
#include "platform/sim/SimPlatform.h"

namespace quorvix::simulate {

// A client's region as the model sees it: a copy that the client's actions and the model write, never the daemon.
struct ModelRegion {
    std::uint64_t length = 0;
    // Whole pages: what lies behind them faults.
    std::vector<std::uint8_t> bytes;
};

using ModelValue = std::variant<std::int64_t, std::uint64_t, std::string, bool, std::shared_ptr<ModelRegion>>;

// A message by key. What is absent or of another type reads as 0, nothing or false.
struct ModelMessage {
    std::map<std::string, ModelValue, std::less<>> values;

    template <class T>
    std::optional<T> get(std::string_view key) const {
        const auto found = values.find(key);
        if (found == values.end() || !std::holds_alternative<T>(found->second)) return std::nullopt;
        return std::get<T>(found->second);
    }
    std::int64_t signedNumber(std::string_view key) const { return get<std::int64_t>(key).value_or(0); }
    std::uint64_t unsignedNumber(std::string_view key) const { return get<std::uint64_t>(key).value_or(0); }
};

struct ModelEvent {
    MessageEventKind kind = MessageEventKind::other;
    ModelMessage message{};
    std::string description{};
    std::int32_t pid = 0;
    std::uint64_t id = 0;
};

// The daemon's end of a connection.
struct ModelConnection {
    std::int32_t pid = 0;
    std::vector<ModelEvent> waiting{};
    bool resumed = false;
    bool closed = false;
    bool over = false;
};

// One snapshot of every process and of the host.
struct ModelSnapshot {
    struct Task {
        std::int32_t pid = 0;
        std::string name;
        ResourceUsage usage{};
    };
    std::optional<std::vector<Task>> tasks;
    std::optional<vm_statistics64> host;
};

// What a process did between two snapshots.
struct ModelDifference {
    std::int32_t pid = 0;
    std::string name{};
    unsigned state = 0;  // 0 alive, 1 new, 2 dead
    ResourceUsage usage{};
};

// The device as the model sees it: a time of its own, which moves in step with the daemon's, and what the stores and
// tables hold.
struct ModelDevice {
    explicit ModelDevice(const sim::SimPlatform& real) : platform(real), tickClock(scheduler) {}

    // Tables of processes and of kernel memory, which no daemon writes.
    const sim::SimPlatform& platform;

    sim::SimScheduler scheduler;
    sim::SimTickClock tickClock;
    sim::SimWallClock wallClock{[this] { return scheduler.wallNow(); }};
    sim::SimWallClock::ZoneRule zone = [](WallTime) { return std::chrono::seconds{0}; };

    std::map<std::string, PropertyListDictionary> preferences;
    std::optional<PropertyListDictionary> profile;
    bool internalBuild = false;
    bool signposts = true;
    bool traceLibrary = true;
    bool traceFunction = true;
    std::map<std::int32_t, std::string> paths;
};

}  // namespace quorvix::simulate
