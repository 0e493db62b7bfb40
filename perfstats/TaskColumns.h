#pragma once

#include "perfstats/PerfSnapshot.h"

namespace quorvix {

// The figures of one process as every rendering shows them: CPU times in whole milliseconds, the rest as counted.
// Total is the user time alone: system time is never added in.
struct TaskColumns {
    unsigned long long totalMs, noQosMs, userInteractiveMs, userInitiatedMs, defaultMs, utilityMs, maintenanceMs,
        backgroundMs, bytesRead, bytesWritten, pageIns;
};

inline TaskColumns taskColumnsOf(const task_statistics& task) {
    const ResourceUsage& usage = task.usage;
    return {.totalMs = msFromTicks(usage.userTime),
            .noQosMs = msFromTicks(usage.unspecifiedTime),
            .userInteractiveMs = msFromTicks(usage.userInteractiveTime),
            .userInitiatedMs = msFromTicks(usage.userInitiatedTime),
            .defaultMs = msFromTicks(usage.legacyTime),
            .utilityMs = msFromTicks(usage.utilityTime),
            .maintenanceMs = msFromTicks(usage.maintenanceTime),
            .backgroundMs = msFromTicks(usage.backgroundTime),
            .bytesRead = usage.diskBytesRead,
            .bytesWritten = usage.diskBytesWritten,
            .pageIns = usage.pageIns};
}

}  // namespace quorvix
