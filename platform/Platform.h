#pragma once

#include "platform/Files.h"
#include "platform/Json.h"
#include "platform/KernelMemory.h"
#include "platform/MessageService.h"
#include "platform/Notifications.h"
#include "platform/PowerLog.h"
#include "platform/Preferences.h"
#include "platform/Services.h"
#include "platform/SharedMemory.h"
#include "platform/Signposts.h"
#include "platform/SystemLog.h"
#include "platform/Time.h"
#include "platform/VMStatistics.h"
#include "platform/WorkQueue.h"

namespace quorvix {

// Every platform service, by reference. Made once by main (or by a test), outlives all subsystem state.
struct Platform {
    TickClock& tickClock;
    WallClock& wallClock;
    QueueService& queues;
    MessageService& messages;
    RegionMemory& regions;
    NotificationService& notifications;
    PreferencesStore& preferences;
    PropertyListReader& propertyLists;
    DeviceCapabilities& capabilities;
    SystemLog& log;
    CounterService& counters;
    ProcessQueries& processes;
    HostStatistics& host;
    Files& files;
    LibraryLoader& libraries;
    JsonService& json;
    RandomSource& random;
    RenderServer& renderServer;
    ProcessLifecycle& lifecycle;
    StateService& state;
    PowerLog& powerLog;
    Signposts& signposts;
    Console& console;
    SystemInformation& systemInformation;
    ProcessMemory& processMemory;
    KernelMemory& kernelMemory;
};

namespace detail {
inline Platform* currentPlatform = nullptr;
}

// Set once at start, before any subsystem is used; a test sets its own and takes it back.
inline void setPlatform(Platform* platform) { detail::currentPlatform = platform; }
// Precondition: set.
inline Platform& platform() { return *detail::currentPlatform; }

}  // namespace quorvix
