#include "simulate/World.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "activation/ActivationState.h"
#include "activation/AppActivationTracker.h"
#include "hang/HangState.h"
#include "hang/QXProcessInfo.h"
#include "perfstats/PerfState.h"
#include "service/ServiceState.h"

namespace quorvix::simulate {

void Region::write(std::uint64_t offset, const void* bytes, std::size_t count) {
    const auto view = real->bytes();
    if (offset + count > view.size()) return;
    std::memcpy(view.data() + offset, bytes, count);
    std::memcpy(model->bytes.data() + offset, bytes, count);
}

Message& Message::number(std::string_view key, std::int64_t value) {
    real.int64(key, value);
    model.values[std::string(key)] = value;
    return *this;
}
Message& Message::unsignedNumber(std::string_view key, std::uint64_t value) {
    real.uint64(key, value);
    model.values[std::string(key)] = value;
    return *this;
}
Message& Message::text(std::string_view key, std::string_view value) {
    real.string(key, value);
    model.values[std::string(key)] = std::string(value);
    return *this;
}
Message& Message::flag(std::string_view key, bool value) {
    real.boolean(key, value);
    model.values[std::string(key)] = value;
    return *this;
}
Message& Message::memory(std::string_view key, const Region& region) {
    real.sharedMemory(key, region.real);
    model.values[std::string(key)] = region.model;
    return *this;
}

World::World(std::uint64_t seed)
    : device(sim::SimTickClock::kDeviceTicks, seed),
      platform(device, trace, faults),
      modelDevice_(device),
      replay_(trace, modelDevice_.scheduler) {
    // Half a millisecond past a whole one, where it stays: the count of whole milliseconds is never in doubt.
    for (sim::SimScheduler* scheduler : {&device.scheduler, &modelDevice_.scheduler}) {
        scheduler->setWallClock(sim::SimScheduler::kDefaultWallTime + std::chrono::microseconds(500));
    }
    setPlatform(&platform.services());
    resetServiceState();
    resetHangState();
    resetActivationState();
    resetPerfState();
    // The folder that the packaged unit makes.
    device.files.addDirectory("/var/root/Library/Caches");
    device.files.addDirectory(kReports);
    setTraceLibrary(true, true);
    setSignposts(true);
}

World::~World() {
    endProcess();
    setPlatform(nullptr);
}

void World::start() {
    ++starts;
    // The unit empties the folder of reports that were begun.
    for (const std::string& name : device.files.list(kTmp)) {
        static_cast<void>(device.files.unlinkFile({kTmp, name}));
    }
    platform.setDebugLines(debugLines);
    model_ = std::make_unique<Model>(modelDevice_, replay_, debugLines);
    bool exited = false, modelExited = false;
    trace.beginWork(QueueName::main);
    try {
        registrations_.emplace(startService());
        trace.endWork();
    } catch (const sim::SimulatedExit&) {
        exited = true;
    }
    replay_.beginWork(QueueName::main);
    try {
        model_->start();
        replay_.endWork();
    } catch (const sim::SimulatedExit&) {
        modelExited = true;
    }
    if (exited != modelExited) throw Mismatch{"the daemon and the model do not agree on the end at the start"};
    device.queues.giveMainThread();
    modelDevice_.scheduler.giveMainThread();
    if (exited) {
        ++exits;
        endProcess();
    }
}

void World::kill() { endProcess(); }

void World::terminate() {
    if (!running()) return;
    device.messages.terminationImminent();
    for (const Connection& connection : connections_) {
        model_->arrive(connection.model, {.kind = MessageEventKind::errorTerminationImminent});
    }
    advance(std::chrono::nanoseconds{0});
    if (running()) endProcess();
}

void World::endProcess() {
    connections_.clear();
    registrations_.reset();
    device.scheduler.dropEverything();
    device.messages.processEnded();
    resetActivationState();
    resetPerfState();
    resetHangState();
    resetServiceState();
    platform.processEnded();
    trace.discard();
    modelDevice_.scheduler.dropEverything();
    model_.reset();
    replay_.clear();
}

Connection World::connect(std::int32_t pid) {
    Connection connection{.real = device.messages.connect(kEndpoint, pid),
                          .model = std::make_shared<ModelConnection>(ModelConnection{.pid = pid})};
    model_->connect(connection.model);
    std::erase_if(connections_, [](const Connection& known) { return known.model->over; });
    return connections_.emplace_back(connection);
}

void World::send(const Connection& connection, Message message) {
    const std::uint64_t id = device.messages.nextObjectId();
    connection.real->send(std::move(message.real));
    model_->arrive(connection.model,
                   {.kind = MessageEventKind::dictionary, .message = std::move(message.model), .id = id});
}

void World::sendOther(const Connection& connection, MessageEventKind kind, std::string_view description, int error) {
    ModelEvent event{.kind = kind, .description = std::string(description), .id = device.messages.nextObjectId()};
    switch (kind) {
        case MessageEventKind::errorConnectionInterrupted:
            connection.real->interrupt();
            event.description = "Connection interrupted";
            break;
        case MessageEventKind::errorOther:
            connection.real->failReceive(ErrorCode{error});
            event.description = ErrorCode{error}.text();
            break;
        default: connection.real->sendUndecodable(description);
    }
    model_->arrive(connection.model, std::move(event));
}

void World::die(const Connection& connection) {
    connection.real->die();
    model_->arrive(connection.model, {.kind = MessageEventKind::errorConnectionInvalid});
}

void World::listenerError(MessageEventKind kind, std::string_view description, std::int32_t pid) {
    const std::uint64_t id = device.messages.nextObjectId();
    device.messages.sendListenerEvent(kEndpoint, kind, description, pid);
    model_->listenerError({.kind = kind, .description = std::string(description), .pid = pid, .id = id});
}

void World::post(std::string_view notification, std::chrono::nanoseconds delay) {
    const auto due = device.scheduler.monotonicNow() + delay;
    device.scheduler.addMonotonic(due, [this, name = std::string(notification)] { device.notifications.post(name); });
    modelDevice_.scheduler.addMonotonic(due, [this, name = std::string(notification)] {
        if (model_) model_->notify(name);
    });
}

void World::setPreference(std::string_view domain, std::string_view key, std::optional<PropertyListValue> value) {
    device.preferences.change(key, value, {domain, "mobile"});
    PropertyListDictionary& list = modelDevice_.preferences[std::string(domain)];
    if (value) {
        list.insert_or_assign(std::string(key), *value);
    } else {
        list.erase(std::string(key));
    }
}

void World::setProfile(std::optional<PropertyListDictionary> profile) {
    if (profile) {
        device.propertyLists.put(kProfile, *profile);
    } else {
        device.propertyLists.remove(kProfile);
    }
    modelDevice_.profile = std::move(profile);
}

Region World::makeRegion(std::uint32_t version, std::uint32_t slotCount, std::uint64_t length) {
    constexpr std::uint64_t kPage = 4096;
    Region region{.real = sim::SimSharedMemory::hangChannel(device.regions, version, slotCount, length),
                  .model = std::make_shared<ModelRegion>()};
    region.model->length = length;
    region.model->bytes.resize((length + kPage - 1) / kPage * kPage);
    if (length > 0) std::memcpy(region.model->bytes.data(), region.real->bytes().data(), length);
    regions_.push_back(region);
    return region;
}

const std::vector<Region>& World::regionsInUse() {
    // Nobody holds it but this list. The model holds what the daemon has mapped.
    std::erase_if(regions_,
                  [](const Region& region) { return region.real.use_count() == 1 && region.model.use_count() == 1; });
    return regions_;
}

void World::setPath(std::int32_t pid, const std::string& path) {
    device.processes.setExecutablePath(pid, path);
    modelDevice_.paths[pid] = path;
}

void World::removePath(std::int32_t pid) {
    device.processes.remove(pid);
    modelDevice_.paths.erase(pid);
}

void World::setWallClock(WallTime time) {
    // What is on its way may end the process; what the wall clock sets off can not.
    advance(std::chrono::nanoseconds{0});
    device.scheduler.setWallClock(time);
    modelDevice_.scheduler.setWallClock(time);
    replay_.finish();
}

void World::setZone(const sim::SimWallClock::ZoneRule& rule) {
    device.wallClock.setTimeZone(rule);
    modelDevice_.wallClock.setTimeZone(rule);
    modelDevice_.zone = rule;
}

void World::setTraceLibrary(bool present, bool withFunction) {
    if (present) {
        installTraceLibrary(device, withFunction);
    } else {
        device.libraries.removeLibrary(kTraceLibraryPath);
    }
    modelDevice_.traceLibrary = present;
    modelDevice_.traceFunction = withFunction;
}

void World::setInternalBuild(bool internal) {
    device.capabilities.setAnswer("InternalBuild", internal);
    modelDevice_.internalBuild = internal;
}

void World::setSignposts(bool on) {
    device.signposts.setEnabled(on);
    modelDevice_.signposts = on;
}

void World::setLeewayUse(sim::SimScheduler::LeewayUse use, std::uint64_t seed) {
    device.scheduler.setLeewayUse(use, seed);
    modelDevice_.scheduler.setLeewayUse(use, seed);
}

void World::holdWakeUps(std::chrono::nanoseconds duration) {
    device.scheduler.holdWakeUps(duration);
    modelDevice_.scheduler.holdWakeUps(duration);
}

void World::after(std::chrono::nanoseconds delay, Work action) {
    planned_.emplace(device.scheduler.monotonicNow() + delay, std::move(action));
}

void World::advance(std::chrono::nanoseconds duration) {
    const auto end = device.scheduler.monotonicNow() + duration;
    while (!planned_.empty() && planned_.begin()->first <= end) {
        const auto moment = planned_.begin()->first;
        const Work action = std::move(planned_.extract(planned_.begin()).mapped());
        advanceTo(moment);
        action();
    }
    advanceTo(end);
}

void World::advanceTo(std::chrono::nanoseconds end) {
    const auto duration = std::max(end - device.scheduler.monotonicNow(), std::chrono::nanoseconds{0});
    bool exited = false, modelExited = false;
    try {
        device.scheduler.advance(duration);
    } catch (const sim::SimulatedExit&) {
        exited = true;
    }
    if (model_) {
        try {
            modelDevice_.scheduler.advance(duration);
        } catch (const sim::SimulatedExit&) {
            modelExited = true;
        }
    }
    if (exited != modelExited) throw Mismatch{exited ? "the daemon ended, the model did not" : "the model ended only"};
    if (exited) {
        ++exits;
        endProcess();
    } else {
        replay_.finish();
    }
    if (device.scheduler.monotonicNow() < end) device.scheduler.advance(end - device.scheduler.monotonicNow());
    if (modelDevice_.scheduler.monotonicNow() < end) {
        modelDevice_.scheduler.advance(end - modelDevice_.scheduler.monotonicNow());
    }
    if (device.scheduler.monotonicNow() != modelDevice_.scheduler.monotonicNow() ||
        device.scheduler.wallNow() != modelDevice_.scheduler.wallNow()) {
        throw Mismatch{"the daemon's time and the model's are apart"};
    }
}

std::uint64_t World::wallMilliseconds() const {
    const auto since = device.scheduler.wallNow().time_since_epoch() - std::chrono::seconds(978307200);
    return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(since).count());
}

}  // namespace quorvix::simulate
