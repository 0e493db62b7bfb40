#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "platform/Relaxed.h"
#include "platform/WorkQueue.h"

namespace quorvix {

// What the preferences decide. Written by refreshPreferences, read by every subsystem. The activation subsystem reads
// maxActivationCount and cpuUtilizationThreshold from queues of its own.
struct Settings {
    bool internalBuild = false;
    bool hangTracingEnabled = false;
    bool memoryLoggingEnabled = false;
    bool appActivationLoggingEnabled = false;
    bool swivexEnabled = false;
    bool hudEnabled = false;
    std::uint32_t memoryLoggingInterval = 3600;     // seconds
    std::uint64_t reportPeriodTicks = 86400000000;  // credits come back every quarter of it: 900 s
    Relaxed<std::uint32_t> maxActivationCount{200};
    Relaxed<double> cpuUtilizationThreshold{50.0};  // milliseconds of CPU time
    std::unique_ptr<RepeatingTimer> hangCheckTimer;
    std::unique_ptr<RepeatingTimer> memoryLoggingTimer;
    std::uint64_t lastCreditRefillTicks = 0;
    std::uint64_t dailyPeriodStartTicks = 0;  // 0: no check has run yet
};

// The settings in force. On daemonQueue.
Settings& settings();

// Defaults of internal installs, written into the preferences once at start-up, before daemonQueue exists.
void checkPreferences();

// Ticks from `now` until a tick gives credits back at the earliest, and until one resets the day; 0: the next one does.
// No answer while no tick comes.
std::optional<std::uint64_t> ticksToCreditRefill(std::uint64_t now);
std::optional<std::uint64_t> ticksToDailyReset(std::uint64_t now);

// Applies every preference: switches the three sources and their timers on and off and takes over the limits. Ends the
// process when all three sources are off. On daemonQueue; the first call is made on the main thread before any handler
// can run.
void refreshPreferences();

// (Re)arms memoryLoggingTimer, where it exists, from memoryLoggingInterval.
void scheduleMemoryLoggingTimer();

// One 5-second tick: gives credits back when due, resets the day when due, looks for hangs. On daemonQueue.
void hangCheckTick();

}  // namespace quorvix
