#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/sim/SimPlatform.h"
#include "service/Service.h"
#include "simulate/Faults.h"
#include "simulate/Model.h"
#include "simulate/ModelDevice.h"
#include "simulate/ObservedPlatform.h"
#include "simulate/Trace.h"

namespace quorvix::simulate {

inline constexpr std::string_view kEndpoint = "com.norvane.quorvixd";
inline constexpr std::string_view kCaches = "/var/root/Library/Caches/quorvixd";
inline constexpr std::string_view kTmp = "/var/root/Library/Caches/quorvixd/tmp";
inline constexpr std::string_view kSpool = "/var/root/Library/Caches/quorvixd/spool";
inline constexpr std::string_view kReports = "/Library/Logs/Faultbox";
inline constexpr std::string_view kProfile = "/Library/Managed Preferences/mobile/.GlobalPreferences.plist";

// Memory that a client shares: its own view, and the model's copy of it.
struct Region {
    std::shared_ptr<sim::SimSharedMemory> real;
    std::shared_ptr<ModelRegion> model;
    // Writes both. What lies past the end is left out.
    void write(std::uint64_t offset, const void* bytes, std::size_t count);
};

// A message for both sides.
class Message {
public:
    Message& number(std::string_view key, std::int64_t value);
    Message& unsignedNumber(std::string_view key, std::uint64_t value);
    Message& text(std::string_view key, std::string_view value);
    Message& flag(std::string_view key, bool value);
    Message& memory(std::string_view key, const Region& region);

    sim::SimMessage real;
    ModelMessage model;
};

// A client's end of a connection, on both sides.
struct Connection {
    std::shared_ptr<sim::SimClient> real;
    std::shared_ptr<ModelConnection> model;
};

// The whole simulated device with the real daemon on it, and beside it the model on its own copy. Whatever happens from
// outside happens to both; then time moves, the daemon works first, and the model compares.
class World {
public:
    explicit World(std::uint64_t seed);
    ~World();
    World(const World&) = delete;
    World& operator=(const World&) = delete;

    // --- the daemon's process -------------------------------------------------------------------------------------
    bool running() const { return model_ != nullptr; }
    void start();
    // SIGKILL, or the machine's end.
    void kill();
    // SIGTERM reaches every connection, then the process ends.
    void terminate();

    // --- from outside ---------------------------------------------------------------------------------------------
    // Precondition of these: running.
    Connection connect(std::int32_t pid);
    void send(const Connection& connection, Message message);
    void sendOther(const Connection& connection, MessageEventKind kind, std::string_view description, int error = 0);
    void die(const Connection& connection);
    void listenerError(MessageEventKind kind, std::string_view description, std::int32_t pid);

    // On its way for so long.
    void post(std::string_view notification, std::chrono::nanoseconds delay = {});
    void setPreference(std::string_view domain, std::string_view key, std::optional<PropertyListValue> value);
    void setProfile(std::optional<PropertyListDictionary> profile);
    // Of clients that live, on their way, or mapped by the daemon whose client has gone or has taken another.
    const std::vector<Region>& regionsInUse();
    Region makeRegion(std::uint32_t version, std::uint32_t slotCount, std::uint64_t length);
    void setPath(std::int32_t pid, const std::string& path);
    void removePath(std::int32_t pid);
    void setWallClock(WallTime time);
    void setZone(const sim::SimWallClock::ZoneRule& rule);
    void setTraceLibrary(bool present, bool withFunction);
    void setInternalBuild(bool internal);
    void setSignposts(bool on);
    void setLeewayUse(sim::SimScheduler::LeewayUse use, std::uint64_t seed);
    void holdWakeUps(std::chrono::nanoseconds duration);

    // Runs once so much time has passed, outside of all work, whatever became of the daemon meanwhile.
    void after(std::chrono::nanoseconds delay, Work action);
    // Time moves; then the model has done the same, or Mismatch is thrown.
    void advance(std::chrono::nanoseconds duration);

    std::uint64_t ticks() { return device.tickClock.now(); }
    // Milliseconds since 2001, as clients give them.
    std::uint64_t wallMilliseconds() const;
    const Model& model() const { return *model_; }

    sim::SimPlatform device;
    FaultPlan faults;
    Trace trace{device.scheduler};
    ObservedPlatform platform;
    bool debugLines = false;
    std::uint64_t starts = 0;
    std::uint64_t exits = 0;

private:
    void endProcess();
    void advanceTo(std::chrono::nanoseconds end);

    ModelDevice modelDevice_;
    Replay replay_;
    std::unique_ptr<Model> model_;
    std::optional<ServiceRegistrations> registrations_;
    // In the order in which they were made.
    std::vector<Connection> connections_;
    std::multimap<std::chrono::nanoseconds, Work> planned_;
    std::vector<Region> regions_;
};

}  // namespace quorvix::simulate
