#include "service/Service.h"

#include "platform/Platform.h"
#include "service/DaemonState.h"
#include "service/Log.h"
#include "service/MessageHandlers.h"
#include "service/ServiceState.h"

namespace quorvix {

namespace {

constexpr std::array<std::string_view, 3> kReportDirectories = {
    "/var/root/Library/Caches/quorvixd",
    "/var/root/Library/Caches/quorvixd/tmp",
    "/var/root/Library/Caches/quorvixd/spool",
};
constexpr std::uint32_t kReportDirectoryMode = 0755;
constexpr std::string_view kEndpoint = "com.norvane.quorvixd";

// In single precision, then widened: every user of msPerTick sees exactly this value.
double computeMsPerTick(const TickRatio& ratio) {
    const float perTick = static_cast<float>(ratio.numerator) * 1e-6f / static_cast<float>(ratio.denominator);
    return static_cast<double>(perTick);
}

void activationPreferencesChanged() {
    quorvixLog().info("QXActivationStats: Activation Logging preferences changed!");
    refreshPreferences();
}

}  // namespace

void createReportDirectories() {
    Files& files = platform().files;
    for (const std::string_view path : kReportDirectories) {
        if (const auto status = files.status(path)) {
            if (status->isDirectory) continue;
            if (!files.unlink(path)) quorvixLog().standard("Unable to remove previous non-directory at %s", path);
        }
        quorvixLog().info("Create log directory: %s", path);
        if (const auto made = files.makeDirectory(path, kReportDirectoryMode); !made) {
            // "spool" stands for each of the three, deliberately: this text is what people search for.
            quorvixLog().standard("Cannot create spool directory - %s failed with %s - continuing anyway.", path,
                                  made.error());
        }
    }
}

ServiceRegistrations startService() {
    ServiceState& state = serviceState();
    createReportDirectories();
    platform().preferences.synchronise({.name = "com.norvane.da", .user = "mobile"});
    checkPreferences();
    state.daemonQueue = platform().queues.makeSerialQueue("com.norvane.quorvix", QualityOfService::userInitiated);
    state.msPerTick = computeMsPerTick(platform().tickClock.ratio());
    state.reportDateFormatter = platform().wallClock.makeDateFormatter("yyyy-MM-dd-HHmmss");

    ServiceRegistrations registrations;
    registrations.listener = platform().messages.makeListener(kEndpoint, state.daemonQueue);
    registrations.listener->setEventHandler(handleListenerEvent);
    registrations.listener->resume();

    const auto onNotification = [&state](std::string_view name, void (*handler)()) {
        return platform().notifications.registerHandler(name, state.daemonQueue, handler);
    };
    registrations.notifications = {
        onNotification("com.norvane.da.tasking_changed", refreshPreferences),
        onNotification("com.norvane.Provisia.profileListChanged", refreshPreferences),
        onNotification("com.norvane.quorvix.pref_changed", activationPreferencesChanged),
    };
    platform().state.publish(kEndpoint, state.daemonQueue, daemonState);

    // Told before the preferences are applied: a daemon that finds everything switched off ends here at once, and
    // must have been up for that to count as a clean end.
    platform().lifecycle.ready();
    refreshPreferences();
    return registrations;
}

}  // namespace quorvix
