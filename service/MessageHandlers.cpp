#include "service/MessageHandlers.h"

#include "activation/AppActivationTracker.h"
#include "hang/QXProcessInfo.h"
#include "platform/Platform.h"
#include "service/Log.h"
#include "service/ServiceState.h"

namespace quorvix {

namespace {

enum Command : std::int64_t {
    startWatching = 1,
    stopWatching = 2,
    hangDetected = 3,
    activationBegin = 4,
    activationEnd = 5,
    fenceBegin = 6,
    fenceEnd = 7,
    fenceBlown = 8,
};

constexpr const char* kFenceHangName = "Fence-hang";
// Half a second of the 24 MHz tick clock on either side of a fence hang. Raw ticks on purpose: not converted.
constexpr std::uint64_t kFenceMarginTicks = 12000000;
// From this overlap on a hang is the fence's.
constexpr std::uint64_t kFenceThresholdMs = 401;
constexpr std::int32_t kActivationTypeLaunch = 1;

// 64-bit message values that are handed on as 32 bits keep their low ones.
std::int32_t low32(std::int64_t value) { return static_cast<std::int32_t>(value); }

void startWatchingClient(std::int32_t pid, const MessageDictionary& untrustedMessage) {
    SharedMemory* const sharedMemory = untrustedMessage.sharedMemory("shmem");
    if (!sharedMemory) {
        quorvixLog().standard("Didn't get shmem from no longer watching %d", pid);
        return;
    }
    const SharedMemoryMapping mapping = sharedMemory->map();
    if (mapping.length == 0 || !mapping.address) {
        quorvixLog().standard("Something wrong w/shmem");
        return;
    }
    const auto process = QXProcessInfo::startWatchingPid(pid, mapping.address, mapping.length);
    if (!process) {
        // A refused mapping goes back whether or not the refusal unmapped it already: a client that is refused again
        // and again must not grow the daemon.
        platform().regions.unmap(mapping.address, mapping.length);
        return;
    }
    quorvixLog().info("Initialization complete now watching hangs for %@ | %s", process->description(),
                      untrustedMessage.string("name"));
}

void recordDetectedHang(std::int32_t pid, const MessageDictionary& untrustedMessage) {
    const auto process = QXProcessInfo::processForPid(pid);
    if (!process) {
        quorvixLog().standard("Got hang detected message for a pid we're not monitoring: %d", pid);
        return;
    }
    const auto startTime = static_cast<std::uint64_t>(untrustedMessage.int64("startTime"));
    const auto endTime = static_cast<std::uint64_t>(untrustedMessage.int64("endTime"));
    const auto threadID = static_cast<std::uint64_t>(untrustedMessage.int64("threadID"));
    const bool saveReport = untrustedMessage.boolean("saveReport");
    const std::uint64_t fencedMs = serviceState().fenceTable.overlapMs(startTime, endTime, msPerTick());
    if (fencedMs < kFenceThresholdMs) {
        const std::string name(untrustedMessage.string("name").value_or(kNullText));
        process->recordHang(name, threadID, startTime, endTime, saveReport);
    } else {
        process->recordHang(kFenceHangName, threadID, startTime - kFenceMarginTicks, endTime + kFenceMarginTicks,
                            saveReport);
    }
}

void beginActivation(std::int32_t sender, const MessageDictionary& untrustedMessage) {
    quorvixLog().debug("QXActivationStats: Noting an app activation begin");
    const std::int32_t pid = low32(untrustedMessage.int64("pid"));
    const auto bundleID = untrustedMessage.string("bundle-id");
    const std::uint64_t startTime = untrustedMessage.uint64("startTime");
    const std::uint64_t vexStartTime = untrustedMessage.uint64("vexStartLatency");
    const std::int32_t state = low32(untrustedMessage.int64("app-activation-state"));
    const std::int32_t type = low32(untrustedMessage.int64("app-activation-type"));
    quorvixLog().info(
        "QXActivationStats: ActivationBegin Command: Pid:%d BundleID:%s StartTime:%llu VEXStartTime:%llu Foreground:%d "
        "ActivationType:%d",
        pid, bundleID, startTime, vexStartTime, state, type);
    if (!bundleID) {
        quorvixLog().standard(
            "QXActivationStats: Failed to get bundle-id for app activation begin command, this activation will be "
            "ignored");
        return;
    }
    quorvixLog().info("QXActivationStats: %s[%d] activation begin (%s)", *bundleID, pid,
                      type == kActivationTypeLaunch ? "launch" : "resume");
    AppActivationTracker::sharedInstance().beginAppActivationTrackingForPID(pid, std::string(*bundleID), startTime,
                                                                            vexStartTime, state, type, sender);
}

void endActivation(std::int32_t sender, const MessageDictionary& untrustedMessage) {
    quorvixLog().debug("QXActivationStats: Noting an app activation end");
    const std::int32_t pid = low32(untrustedMessage.int64("pid"));
    const auto bundleID = untrustedMessage.string("bundle-id");
    const std::uint64_t endTime = untrustedMessage.uint64("endTime");
    const std::int32_t state = low32(untrustedMessage.int64("app-activation-state"));
    const std::int32_t result = low32(untrustedMessage.int64("app-activation-result"));
    quorvixLog().info(
        "QXActivationStats: ActivationEnd Command: Pid:%d BundleID:%s EndTime:%llu Foreground:%d ActivationResult:%d",
        pid, bundleID, endTime, state, result);
    if (!bundleID) {
        // Worded unlike the begin command's text, deliberately: log searches tell the two apart by it.
        quorvixLog().standard(
            "QXActivationStats: Failed to get bundleID for app activation end command, ignoring this");
        return;
    }
    quorvixLog().info("QXActivationStats: %s[%d] activation end", *bundleID, pid);
    AppActivationTracker::sharedInstance().endAppActivationTrackingForPID(pid, std::string(*bundleID), endTime, state,
                                                                          result, sender);
}

void beginFence(const MessageDictionary& untrustedMessage) {
    quorvixLog().info("QXFenceTracking: Fence begin");
    serviceState().fenceTable.begin(untrustedMessage.int64("name"), untrustedMessage.int64("startTime"));
}

void endFence(const MessageDictionary& untrustedMessage) {
    quorvixLog().info("QXFenceTracking: Fence end");
    const std::int64_t name = untrustedMessage.int64("name");
    if (!serviceState().fenceTable.end(name, untrustedMessage.int64("endTime"))) {
        quorvixLog().standard("QXFenceTracking: Fence end, failed to find corresponding fence(%llu)",
                              static_cast<std::uint64_t>(name));
    }
}

void recordBlownFence(const MessageDictionary& untrustedMessage) {
    quorvixLog().standard("QXFenceTracking: Fence blown");
    // Whose hang a fence's is nobody knows: any watched process stands for it. The sender's pid is not used, and
    // whether a trace is taken is the device's preference, not the message's wish.
    const auto process = QXProcessInfo::processForFenceHangs();
    if (!process) {
        quorvixLog().standard("Got Fence Blown message but can't find processForHangs");
        return;
    }
    const auto startTime = static_cast<std::uint64_t>(untrustedMessage.int64("startTime"));
    const auto endTime = static_cast<std::uint64_t>(untrustedMessage.int64("endTime"));
    process->recordHang(kFenceHangName, 0, startTime - kFenceMarginTicks, endTime + kFenceMarginTicks,
                        settings().swivexEnabled);
}

}  // namespace

void handleListenerEvent(const MessageEvent& event) {
    switch (event.kind) {
        case MessageEventKind::newConnection: {
            const auto& connection = event.connection;
            quorvixLog().info("VEX: Client started new connection: pid %d", connection->pid());
            connection->setTargetQueue(serviceState().daemonQueue);
            connection->setEventHandler(
                [connection](const MessageEvent& message) { handleConnectionEvent(connection, message); });
            connection->resume();
            return;
        }
        case MessageEventKind::errorConnectionInvalid:
            // The listener has no client here: the pid is the event's own, used as it comes.
            quorvixLog().info("vex_error_connection_invalid %s - stop watching pid %d", event.description, event.pid);
            QXProcessInfo::stopWatchingPid(event.pid);
            return;
        case MessageEventKind::errorConnectionInterrupted:
            quorvixLog().standard("vex_error_connection_interrupted: %s", event.description);
            return;
        case MessageEventKind::errorTerminationImminent:
        case MessageEventKind::errorOther:
            quorvixLog().standard("quorvixd: Connection error: %p : %s", event.id, event.description);
            return;
        case MessageEventKind::dictionary:
        case MessageEventKind::other: quorvixLog().standard("quorvixd: unknown event type : %p", event.typeId); return;
    }
}

void handleConnectionEvent(const std::shared_ptr<MessageConnection>& connection, const MessageEvent& event) {
    switch (event.kind) {
        case MessageEventKind::dictionary: handleClientMessage(connection, *event.dictionary); return;
        case MessageEventKind::errorConnectionInvalid: {
            const std::int32_t pid = connection->pid();
            quorvixLog().info("Client disconnected: %d", pid);
            QXProcessInfo::stopWatchingPid(pid);
            return;
        }
        case MessageEventKind::errorTerminationImminent: quorvixLog().info("Termination imminent!"); return;
        case MessageEventKind::errorConnectionInterrupted:
        case MessageEventKind::errorOther: quorvixLog().standard("Unexpected error: %s", event.description); return;
        case MessageEventKind::newConnection:
        case MessageEventKind::other:
            quorvixLog().standard("We got a non-dictionary event: %s", event.description);
            return;
    }
}

void handleClientMessage(const std::shared_ptr<MessageConnection>& connection,
                         const MessageDictionary& untrustedMessage) {
    const std::int32_t pid = connection->pid();
    if (pid < 1) {
        quorvixLog().info("%d is not a valid pid to watch", pid);
        return;
    }
    switch (untrustedMessage.int64("command")) {
        case startWatching: startWatchingClient(pid, untrustedMessage); return;
        case stopWatching: QXProcessInfo::stopWatchingPid(pid); return;
        case hangDetected: recordDetectedHang(pid, untrustedMessage); return;
        case activationBegin: beginActivation(pid, untrustedMessage); return;
        case activationEnd: endActivation(pid, untrustedMessage); return;
        case fenceBegin: beginFence(untrustedMessage); return;
        case fenceEnd: endFence(untrustedMessage); return;
        case fenceBlown: recordBlownFence(untrustedMessage); return;
        default: quorvixLog().standard("Don't know how to handle %p", untrustedMessage.id()); return;
    }
}

}  // namespace quorvix
