#pragma once

#include <memory>
#include <mutex>
#include <optional>

#include "platform/SystemLog.h"
#include "platform/Time.h"
#include "platform/WorkQueue.h"
#include "service/FenceTable.h"
#include "service/Settings.h"

namespace quorvix {

// The process-wide state of the service core, in one place so that a test starts from nothing. Lives as long as the
// process; everything but the log handle is used on daemonQueue only (and on the main thread before it runs).
struct ServiceState {
    std::once_flag logCreated;
    std::optional<LogHandle> log;
    // The one serial queue on which every handler of the daemon runs.
    std::shared_ptr<WorkQueue> daemonQueue;
    // Milliseconds per tick, computed in single precision and widened.
    double msPerTick = 0;
    // Stamps report file names, "yyyy-MM-dd-HHmmss", local time.
    std::unique_ptr<DateFormatter> reportDateFormatter;
    Settings settings;
    FenceTable fenceTable;
};

ServiceState& serviceState();
// Replaces the whole state. Precondition: nothing of the daemon runs.
void resetServiceState();

inline WorkQueue& daemonQueue() { return *serviceState().daemonQueue; }
inline double msPerTick() { return serviceState().msPerTick; }

}  // namespace quorvix
