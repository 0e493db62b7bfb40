#pragma once

#include "platform/Platform.h"
#include "platform/sim/SimCapabilities.h"
#include "platform/sim/SimConsole.h"
#include "platform/sim/SimCounters.h"
#include "platform/sim/SimFiles.h"
#include "platform/sim/SimHostStatistics.h"
#include "platform/sim/SimJson.h"
#include "platform/sim/SimLibraries.h"
#include "platform/sim/SimLifecycle.h"
#include "platform/sim/SimLog.h"
#include "platform/sim/SimMessageService.h"
#include "platform/sim/SimNotifications.h"
#include "platform/sim/SimPowerLog.h"
#include "platform/sim/SimPreferences.h"
#include "platform/sim/SimProcesses.h"
#include "platform/sim/SimPropertyLists.h"
#include "platform/sim/SimQueueService.h"
#include "platform/sim/SimRandom.h"
#include "platform/sim/SimRenderServer.h"
#include "platform/sim/SimScheduler.h"
#include "platform/sim/SimSharedMemory.h"
#include "platform/sim/SimSignposts.h"
#include "platform/sim/SimStateService.h"
#include "platform/sim/SimTickClock.h"
#include "platform/sim/SimWallClock.h"

namespace quorvix::sim {

// A whole simulated device. A test sets it as the platform, runs the real subsystems on it and moves its time.
struct SimPlatform {
    explicit SimPlatform(TickRatio ratio = SimTickClock::kDeviceTicks, std::uint64_t seed = 1)
        : tickClock(scheduler, ratio), random(seed) {}
    SimPlatform(const SimPlatform&) = delete;
    SimPlatform& operator=(const SimPlatform&) = delete;

    SimScheduler scheduler;
    SimTickClock tickClock;
    SimWallClock wallClock{[this] { return scheduler.wallNow(); }};
    SimQueueService queues{scheduler};
    SimRegionMemory regions;
    SimMessageService messages;
    SimNotifications notifications;
    SimPreferences preferences;
    SimPropertyLists propertyLists;
    SimCapabilities capabilities;
    SimLog log;
    SimCounters counters;
    SimProcesses processes;
    SimHostStatistics host;
    SimFiles files;
    SimLibraries libraries;
    SimJson json;
    SimRandom random;
    SimRenderServer renderServer;
    SimLifecycle lifecycle;
    SimStateService state;
    SimPowerLog powerLog;
    SimSignposts signposts;
    SimConsole console;

    Platform services{.tickClock = tickClock,
                      .wallClock = wallClock,
                      .queues = queues,
                      .messages = messages,
                      .regions = regions,
                      .notifications = notifications,
                      .preferences = preferences,
                      .propertyLists = propertyLists,
                      .capabilities = capabilities,
                      .log = log,
                      .counters = counters,
                      .processes = processes,
                      .host = host,
                      .files = files,
                      .libraries = libraries,
                      .json = json,
                      .random = random,
                      .renderServer = renderServer,
                      .lifecycle = lifecycle,
                      .state = state,
                      .powerLog = powerLog,
                      .signposts = signposts,
                      .console = console};
};

}  // namespace quorvix::sim
