#include <cmath>
#include <utility>

#include "simulate/Model.h"
#include "simulate/Text.h"

namespace quorvix::simulate {

namespace {

using namespace std::chrono_literals;

constexpr std::int64_t kOpen = 0x7FFFFFFFFFFFFFFF;
constexpr std::uint64_t kFenceMargin = 12000000;

std::uint64_t truncated(double value) {
    if (std::isnan(value) || value <= 0) return 0;
    if (value >= 18446744073709551616.0) return UINT64_MAX;
    return static_cast<std::uint64_t>(value);
}

}  // namespace

void Model::start() {
    makeDirectories();
    replay_.expect(Op::synchronise, "com.norvane.da");
    checkPreferences();
    const float factor = 125.0F * 1e-6F / 3.0F;
    msPerTick_ = static_cast<double>(factor);
    if (replay_.expect(Op::makeListener, "com.norvane.quorvixd").error.value != 0) {
        // The platform ends a process that can't have its endpoint.
        replay_.endWork();
        throw sim::SimulatedExit{71};
    }
    for (const char* name : {"com.norvane.da.tasking_changed", "com.norvane.Provisia.profileListChanged",
                             "com.norvane.quorvix.pref_changed"}) {
        registerFor(name, "com.norvane.quorvix");
    }
    replay_.expect(Op::ready, "");
    refresh();
}

void Model::makeDirectories() {
    for (const char* path : {"/var/root/Library/Caches/quorvixd", "/var/root/Library/Caches/quorvixd/tmp",
                             "/var/root/Library/Caches/quorvixd/spool"}) {
        const Record status = replay_.expect(Op::statusPath, path);
        if (status.error.value == 0 && status.number != 0) continue;
        if (status.error.value == 0 && replay_.expect(Op::unlinkPath, path).error.value != 0) {
            log(print("Unable to remove previous non-directory at %s", path));
        }
        info(print("Create log directory: %s", path));
        const Record made = replay_.expect(Op::makeDirectory, std::string(path) + " 493");
        if (made.error.value != 0) {
            log(print("Cannot create spool directory - %s failed with %s - continuing anyway.", path,
                      made.error.text().c_str()));
        }
    }
}

// --- preferences ---------------------------------------------------------------------------------------------------

void Model::checkPreferences() {
    internalBuild_ = device_.internalBuild && !replay_.leftOut(Op::capability);
    if (!internalBuild_) return;
    PropertyListDictionary& store = device_.preferences["com.norvane.da"];
    const auto read = [&](const char* key) -> std::optional<PropertyListValue> {
        const Record asked = replay_.question(Op::readPreference, std::string("com.norvane.da|mobile|") + key);
        if (asked.error.value != 0 || !store.contains(key)) return std::nullopt;
        return store.find(key)->second;
    };
    const auto write = [&](const char* key, PropertyListValue value) {
        replay_.expect(Op::setPreference, std::string("com.norvane.da|mobile|") + key);
        store.insert_or_assign(key, std::move(value));
    };
    const auto created = read("QuorvixInternalSettingCreated");
    if (!created || !created->boolean().value_or(false)) {
        info("checkPreferences: Internal install, force enabled.");
        write("QuorvixEnabled", true);
        write("QuorvixInternalSettingCreated", true);
    }
    const auto version = read("QuorvixInternalSettingsVersion");
    if (!version) {
        replay_.expect(Op::setPreference, "com.norvane.da|mobile|QuorvixDuration removed");
        store.erase("QuorvixDuration");
    }
    if (!version || version->uint32() != 2u) write("QuorvixInternalSettingsVersion", 2);
    if (!read("QuorvixEnableSwivex")) write("QuorvixEnableSwivex", true);
    write("QuorvixEnableMemoryLogging", true);
    replay_.expect(Op::synchronise, "com.norvane.da");
}

std::optional<PropertyListValue> Model::preference(std::string_view key, std::string_view domain) {
    const Record asked = replay_.question(Op::readPreference, std::string(domain) + "|mobile|" + std::string(key));
    const auto& store = device_.preferences[std::string(domain)];
    const auto found = store.find(key);
    if (asked.error.value != 0 || found == store.end()) return std::nullopt;
    return found->second;
}

void Model::refresh() {
    const Record profileRead =
        replay_.question(Op::readProfile, "/Library/Managed Preferences/mobile/.GlobalPreferences.plist");
    const auto profile = profileRead.error.value == 0 ? device_.profile : std::nullopt;
    replay_.expect(Op::synchronise, "com.norvane.da");
    const auto overridden = [&](const std::string& key) -> std::optional<PropertyListValue> {
        if (profile) {
            const auto found = profile->find("QXProfile." + key);
            if (found != profile->end() && found->second.isNumber()) return found->second;
        }
        return preference(key);
    };
    const auto enabled = overridden("QuorvixEnabled");
    const auto period = overridden("QuorvixReportPeriod");
    const auto limit = overridden("QuorvixDailyLogLimit");
    const auto swivex = overridden("QuorvixEnableSwivex");
    const auto hud = preference("QuorvixEnableHUD");
    const auto memory = preference("QuorvixEnableMemoryLogging");
    const auto interval = preference("QuorvixMemoryLoggingInterval");
    const auto activation = preference("QuorvixEnableAppActivationLogging", "com.norvane.quorvix");
    const auto threshold = preference("QuorvixAppActivationLoggingCPUUtilizationThreshold");
    const auto count = preference("QuorvixAppActivationLoggingMaxActivationCount");
    const auto isTrue = [](const std::optional<PropertyListValue>& value) {
        return value && value->boolean().value_or(false);
    };

    if (isTrue(memory)) {
        info("refreshPreferences: Memory Logging Enabled");
        memoryLogging_ = true;
        if (!memoryTimer_) {
            memoryTimer_ =
                queues_[QueueName::daemon]->makeTimer(onQueue(QueueName::daemon, [this] { memorySnapshot(); }));
            scheduleMemoryTimer();
            memoryTimer_->start();
        }
    } else {
        info("refreshPreferences: Memory Logging Disabled");
        memoryLogging_ = false;
        memoryTimer_.reset();
    }
    if (interval && interval->uint32() && *interval->uint32() != memoryInterval_) {
        memoryInterval_ = *interval->uint32();
        scheduleMemoryTimer();
        info(print("refreshPreferences: change memoryLoggingInterval to %u", memoryInterval_));
    }
    if (isTrue(enabled)) {
        info("refreshPreferences: Hang Tracing Enabled");
        hangTracing_ = true;
        if (!hangTimer_) {
            hangTimer_ = queues_[QueueName::daemon]->makeTimer(onQueue(QueueName::daemon, [this] { hangCheckTick(); }));
            hangTimer_->schedule({.firstDelay = 5s, .interval = 5s, .leeway = 1s});
            hangTimer_->start();
        }
    } else {
        info("refreshPreferences: Hang Tracing Disabled");
        stopWatchingAll();
        hangTracing_ = false;
        hangTimer_.reset();
    }
    if (hud && hud->boolean()) {
        hud_ = *hud->boolean();
        info(print("refreshPreferences: QuorvixEnableHUD: %d", hud_));
    }
    if (period && period->single()) {
        reportPeriod_ = truncated(static_cast<double>(*period->single()) * 1000.0 / msPerTick_);
        info(print("refreshPreferences: QuorvixReportPeriod = %d", *period->int32()));
    }
    if (limit && limit->int32()) {
        setMaxDailyLogs(*limit->int32());
        info(print("refreshPreferences: QuorvixDailyLogLimit = %d", *limit->int32()));
    }
    swivex_ = isTrue(swivex);
    info(print("refreshPreferences: QuorvixEnableSwivex = %d", swivex_));
    activationLogging_ = isTrue(activation);
    info(activationLogging_ ? "refreshPreferences: App Activation Logging Enabled"
                            : "refreshPreferences: App Activation Logging Disabled");
    if (count && count->uint32()) {
        maxActivations_ = *count->uint32();
        info(print("refreshPreferences: QuorvixAppActivationLoggingMaxActivationCount = %d",
                   static_cast<std::int32_t>(maxActivations_)));
    }
    if (threshold && threshold->real() && *threshold->real() > 0.0) {
        cpuThreshold_ = *threshold->real();
        info(print("refreshPreferences: QuorvixAppActivationLoggingCPUUtilizationThreshold = %f", cpuThreshold_));
    }
    if (!hangTracing_ && !memoryLogging_ && !activationLogging_) {
        log("quorvixd is exiting. All sources turned off");
        replay_.expect(Op::exitProcess, "0");
        replay_.endWork();
        throw sim::SimulatedExit{0};
    }
}

void Model::scheduleMemoryTimer() {
    if (!memoryTimer_) return;
    const std::chrono::seconds interval(memoryInterval_);
    memoryTimer_->schedule({.firstDelay = interval, .interval = interval, .leeway = 1s});
}

// What could not be registered is never heard.
void Model::registerFor(const std::string& name, const char* queue) {
    const Record registered = replay_.expect(Op::registerHandler, name + " on " + queue);
    if (registered.error.value == 0) registered_.insert(name);
}

void Model::notify(std::string_view name) {
    if (!registered_.contains(name)) return;
    if (name == "com.norvane.da.tasking_changed" || name == "com.norvane.Provisia.profileListChanged") {
        post(QueueName::daemon, [this] { refresh(); });
    } else if (name == "com.norvane.quorvix.pref_changed") {
        post(QueueName::daemon, [this] {
            info("QXActivationStats: Activation Logging preferences changed!");
            refresh();
        });
    } else if (name == "com.norvane.mobile.sentinad.first_unlock") {
        post(QueueName::output, [this] {
            info("QXActivationStats: First unlock; resetting largest tracked pid");
            largestPid_ = -1;
        });
    }
}

// --- connections ---------------------------------------------------------------------------------------------------

void Model::connect(const std::shared_ptr<ModelConnection>& connection) {
    post(QueueName::daemon, [this, connection] {
        if (listenerGone_) return;
        info(print("VEX: Client started new connection: pid %d", connection->pid));
        connection->resumed = true;
        for (ModelEvent& event : std::exchange(connection->waiting, {})) {
            postConnectionEvent(connection, std::move(event));
        }
    });
}

void Model::arrive(const std::shared_ptr<ModelConnection>& connection, ModelEvent event) {
    if (connection->closed) return;
    connection->closed = event.kind == MessageEventKind::errorConnectionInvalid;
    if (connection->resumed) {
        postConnectionEvent(connection, std::move(event));
    } else {
        connection->waiting.push_back(std::move(event));
    }
}

void Model::postConnectionEvent(const std::shared_ptr<ModelConnection>& connection, ModelEvent event) {
    post(QueueName::daemon, [this, connection, event = std::move(event)] {
        if (connection->over) return;
        connectionEvent(connection, event);
        connection->over = event.kind == MessageEventKind::errorConnectionInvalid;
    });
}

void Model::listenerError(ModelEvent event) {
    post(QueueName::daemon, [this, event = std::move(event)] {
        if (listenerGone_) return;
        listenerGone_ = event.kind == MessageEventKind::errorConnectionInvalid;
        const char* const text = event.description.c_str();
        switch (event.kind) {
            case MessageEventKind::errorConnectionInvalid:
                info(print("vex_error_connection_invalid %s - stop watching pid %d", text, event.pid));
                stopWatchingPid(event.pid);
                break;
            case MessageEventKind::errorConnectionInterrupted:
                log(print("vex_error_connection_interrupted: %s", text));
                break;
            case MessageEventKind::errorTerminationImminent:
            case MessageEventKind::errorOther:
                log(print("quorvixd: Connection error: 0x%llx : %s", static_cast<unsigned long long>(event.id), text));
                break;
            default:
                log(print("quorvixd: unknown event type : 0x%llx",
                          static_cast<unsigned long long>(sim::SimMessageService::typeIdOf(event.kind).value)));
        }
    });
}

void Model::connectionEvent(const std::shared_ptr<ModelConnection>& connection, const ModelEvent& event) {
    switch (event.kind) {
        case MessageEventKind::dictionary: message(connection->pid, event.message, event.id); break;
        case MessageEventKind::errorConnectionInvalid:
            info(print("Client disconnected: %d", connection->pid));
            stopWatchingPid(connection->pid);
            break;
        case MessageEventKind::errorTerminationImminent: info("Termination imminent!"); break;
        case MessageEventKind::errorConnectionInterrupted:
        case MessageEventKind::errorOther: log("Unexpected error: " + event.description); break;
        default: log("We got a non-dictionary event: " + event.description);
    }
}

void Model::message(std::int32_t pid, const ModelMessage& message, std::uint64_t id) {
    if (pid < 1) return info(print("%d is not a valid pid to watch", pid));
    switch (message.signedNumber("command")) {
        case 1: return startWatching(pid, message);
        case 2: return stopWatchingPid(pid);
        case 3: return hangDetected(pid, message);
        case 4: return activationBegin(message);
        case 5: return activationEnd(message);
        case 6: return fenceBegin(message);
        case 7: return fenceEnd(message);
        case 8: return fenceBlown(message);
        default: log(print("Don't know how to handle 0x%llx", static_cast<unsigned long long>(id)));
    }
}

void Model::startWatching(std::int32_t pid, const ModelMessage& message) {
    const auto region = message.get<std::shared_ptr<ModelRegion>>("shmem");
    if (!region) return log(print("Didn't get shmem from no longer watching %d", pid));
    const Record mapped = replay_.question(Op::regionMap, "");
    if (mapped.error.value != 0) return log("Something wrong w/shmem");
    const ProcessPointer process = startWatchingPid(pid, *region, mapped.number);
    if (!process) return;
    const auto name = message.get<std::string>("name");
    info(print("Initialization complete now watching hangs for %s(%d) | %s", process->name.c_str(), process->pid,
               name ? name->c_str() : "(null)"));
}

void Model::hangDetected(std::int32_t pid, const ModelMessage& message) {
    const ProcessPointer process = processFor(pid);
    if (!process) return log(print("Got hang detected message for a pid we're not monitoring: %d", pid));
    const auto start = static_cast<std::uint64_t>(message.signedNumber("startTime"));
    const auto end = static_cast<std::uint64_t>(message.signedNumber("endTime"));
    std::uint64_t overlap = 0;
    for (const Fence& fence : fences_) {
        const std::uint64_t low = std::max(static_cast<std::uint64_t>(fence.start), start);
        const std::uint64_t high = std::min(static_cast<std::uint64_t>(fence.end), end);
        if (high > low) {
            overlap = truncated(static_cast<double>(overlap) + msPerTick_ * static_cast<double>(high - low));
        }
    }
    Hang hang{.name = message.get<std::string>("name").value_or("(null)"),
              .thread = static_cast<std::uint64_t>(message.signedNumber("threadID")),
              .start = start,
              .end = end};
    if (overlap >= 401) {
        hang.name = "Fence-hang";
        hang.start -= kFenceMargin;
        hang.end += kFenceMargin;
    }
    recordHang(process, hang, message.get<bool>("saveReport").value_or(false));
}

void Model::fenceBegin(const ModelMessage& message) {
    info("QXFenceTracking: Fence begin");
    const std::int32_t slot = fenceNext_ % 5;
    fenceNext_ = (fenceNext_ + 1) % 5 == 0 ? 0 : fenceNext_ + 1;
    fences_[slot] = {message.signedNumber("name"), message.signedNumber("startTime"), kOpen};
    fenceLast_ = slot;
}

void Model::fenceEnd(const ModelMessage& message) {
    info("QXFenceTracking: Fence end");
    const std::int64_t name = message.signedNumber("name");
    Fence* found = nullptr;
    if (fences_[fenceLast_].name == name) {
        found = &fences_[fenceLast_];
    } else {
        for (Fence& fence : fences_) {
            if (fence.name == name) found = &fence;
        }
    }
    if (!found) {
        return log(print("QXFenceTracking: Fence end, failed to find corresponding fence(%llu)",
                         static_cast<unsigned long long>(name)));
    }
    found->end = message.signedNumber("endTime");
}

void Model::fenceBlown(const ModelMessage& message) {
    log("QXFenceTracking: Fence blown");
    if (watched_.empty()) return log("Got Fence Blown message but can't find processForHangs");
    const Record drawn = replay_.expect(Op::uniform, std::to_string(watched_.size()));
    const ProcessPointer process = watched_.at(drawn.number);
    recordHang(process,
               {.name = "Fence-hang",
                .thread = 0,
                .start = static_cast<std::uint64_t>(message.signedNumber("startTime")) - kFenceMargin,
                .end = static_cast<std::uint64_t>(message.signedNumber("endTime")) + kFenceMargin},
               swivex_);
}

void Model::activationBegin(const ModelMessage& message) {
    debug("QXActivationStats: Noting an app activation begin");
    const auto bundle = message.get<std::string>("bundle-id");
    const ActivationBegin begin{.pid = static_cast<std::int32_t>(message.signedNumber("pid")),
                                .bundle = bundle.value_or(""),
                                .time = message.unsignedNumber("startTime"),
                                .sent = message.unsignedNumber("vexStartLatency"),
                                .state = static_cast<std::int32_t>(message.signedNumber("app-activation-state")),
                                .type = static_cast<std::int32_t>(message.signedNumber("app-activation-type"))};
    info(
        print("QXActivationStats: ActivationBegin Command: Pid:%d BundleID:%s StartTime:%llu VEXStartTime:%llu "
              "Foreground:%d ActivationType:%d",
              begin.pid, bundle ? bundle->c_str() : "(null)", static_cast<unsigned long long>(begin.time),
              static_cast<unsigned long long>(begin.sent), begin.state, begin.type));
    if (!bundle) {
        return log(
            "QXActivationStats: Failed to get bundle-id for app activation begin command, this activation will "
            "be ignored");
    }
    info(print("QXActivationStats: %s[%d] activation begin (%s)", begin.bundle.c_str(), begin.pid,
               begin.type == 1 ? "launch" : "resume"));
    makeTracker();
    post(QueueName::activation, [this, begin] { beginStep(begin); });
}

void Model::activationEnd(const ModelMessage& message) {
    debug("QXActivationStats: Noting an app activation end");
    const auto bundle = message.get<std::string>("bundle-id");
    const ActivationEnd end{.pid = static_cast<std::int32_t>(message.signedNumber("pid")),
                            .bundle = bundle.value_or(""),
                            .time = message.unsignedNumber("endTime"),
                            .state = static_cast<std::int32_t>(message.signedNumber("app-activation-state")),
                            .result = static_cast<std::int32_t>(message.signedNumber("app-activation-result"))};
    info(
        print("QXActivationStats: ActivationEnd Command: Pid:%d BundleID:%s EndTime:%llu Foreground:%d "
              "ActivationResult:%d",
              end.pid, bundle ? bundle->c_str() : "(null)", static_cast<unsigned long long>(end.time), end.state,
              end.result));
    if (!bundle) {
        return log("QXActivationStats: Failed to get bundleID for app activation end command, ignoring this");
    }
    info(print("QXActivationStats: %s[%d] activation end", end.bundle.c_str(), end.pid));
    makeTracker();
    post(QueueName::activation, [this, end] { endStep(end); });
}

}  // namespace quorvix::simulate
