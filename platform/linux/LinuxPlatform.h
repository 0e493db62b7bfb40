#pragma once

#include <memory>

#include "platform/Platform.h"
#include "platform/linux/Clocks.h"
#include "platform/linux/Console.h"
#include "platform/linux/CounterStore.h"
#include "platform/linux/DeviceCapabilities.h"
#include "platform/linux/Files.h"
#include "platform/linux/HostStatistics.h"
#include "platform/linux/JournalLog.h"
#include "platform/linux/Json.h"
#include "platform/linux/KernelMemory.h"
#include "platform/linux/LibraryLoader.h"
#include "platform/linux/Lifecycle.h"
#include "platform/linux/MessageService.h"
#include "platform/linux/Notifications.h"
#include "platform/linux/PowerLogStore.h"
#include "platform/linux/PreferencesStore.h"
#include "platform/linux/ProcessMemory.h"
#include "platform/linux/ProcessQueries.h"
#include "platform/linux/PropertyListReader.h"
#include "platform/linux/QueueService.h"
#include "platform/linux/RandomSource.h"
#include "platform/linux/RenderServer.h"
#include "platform/linux/SharedMemory.h"
#include "platform/linux/Signposts.h"
#include "platform/linux/StateService.h"
#include "platform/linux/SystemInformation.h"
#include "platform/linux/WallClock.h"
#include "platform/linux/WatchdogPing.h"

namespace quorvix::linuxos {

// Every real service, made in the order in which they depend on each other. Made on the main thread before any other
// thread exists and never destroyed: the process ends while its threads run.
class LinuxPlatform {
public:
    LinuxPlatform();
    LinuxPlatform(const LinuxPlatform&) = delete;
    LinuxPlatform& operator=(const LinuxPlatform&) = delete;

    Platform& services() { return services_; }
    // What runs when the process is asked to terminate: every connection hears of it first. Called once daemonQueue
    // exists.
    void announceTerminationOn(const std::shared_ptr<WorkQueue>& queue);
    // The service manager hears that the process is well from this queue, where it has asked for that: one that is
    // stuck falls silent, and the manager begins anew. Called before the main thread is given away.
    void answerWatchdogOn(const std::shared_ptr<WorkQueue>& queue);

private:
    // The daemon's state with the platform's own figures added to it.
    class StateWithSelfCounters final : public StateService {
    public:
        explicit StateWithSelfCounters(LinuxPlatform& owner) : owner_(owner), sockets_(owner.log_) {}
        void publish(std::string_view endpoint, const std::shared_ptr<WorkQueue>& queue,
                     std::function<JsonObject()> provider) override;
        JsonObject selfCounters() const { return sockets_.selfCounters(); }

    private:
        LinuxPlatform& owner_;
        LinuxStateService sockets_;
    };

    JsonObject selfCounters() const;

    JournalLog log_;
    LinuxLifecycle lifecycle_;
    LinuxQueueService queues_{&lifecycle_};
    LinuxTickClock tickClock_;
    LinuxWallClock wallClock_;
    MappedRegions regions_;
    LinuxMessageService messages_{log_, lifecycle_, regions_};
    LinuxNotificationService notifications_{log_};
    LinuxPreferencesStore preferences_{log_};
    LinuxPropertyListReader propertyLists_{log_};
    LinuxDeviceCapabilities capabilities_{log_};
    CounterStore counters_{log_};
    LinuxProcessQueries processes_{log_};
    LinuxHostStatistics host_;
    LinuxFiles files_;
    LinuxLibraryLoader libraries_;
    LinuxJson json_;
    LinuxRandomSource random_;
    LinuxRenderServer renderServer_;
    LinuxSignposts signposts_;
    LinuxConsole console_{log_};
    PowerLogStore powerLog_{log_};
    LinuxSystemInformation systemInformation_;
    LinuxProcessMemory processMemory_;
    LinuxKernelMemory kernelMemory_;
    StateWithSelfCounters state_{*this};
    std::unique_ptr<WatchdogPing> watchdogPing_;
    Platform services_;
};

}  // namespace quorvix::linuxos
