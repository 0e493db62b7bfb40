// Launches as intervals in the performance trace.

#include "activation/ActivationState.h"
#include "activation/AppActivationTracker.h"
#include "perfstats/StatisticsDelta.h"
#include "platform/Platform.h"
#include "service/ServiceState.h"

namespace quorvix {

namespace {

constexpr std::string_view kIntervalName = "appLaunch";
// Stored texts: the blanks are part of them.
constexpr std::string_view kBeginFormat = "appLaunch processBundleId=%{signpost.telemetry:string1}s";
constexpr std::string_view kEndFormat =
    "appLaunch processBundleId=%{signpost.telemetry:string1}s                                      "
    "appCPUTimeInMs=%{signpost.telemetry:number1}llu                                      "
    "appIOInKB=%{signpost.telemetry:number2}llu";
// The marker without a blank before it asks the trace tools to record the telemetry.
constexpr std::string_view kEndWithTelemetryFormat =
    "appLaunch processBundleId=%{signpost.telemetry:string1}s                                      "
    "appCPUTimeInMs=%{signpost.telemetry:number1}llu                                      "
    "appIOInKB=%{signpost.telemetry:number2}lluenableTelemetry=YES";

// 0 and -1 identify no interval.
bool isIntervalIdentifier(std::int32_t pid) { return static_cast<std::uint32_t>(pid) + 1 >= 2; }

bool emitsInterval(std::int32_t pid) { return isIntervalIdentifier(pid) && platform().signposts.enabled(); }

struct LaunchTelemetry {
    std::uint64_t cpuTimeMs = 0;
    std::uint64_t ioKilobytes = 0;  // of 1000 bytes, deliberately
};

LaunchTelemetry measureLaunch(const AppActivation& record) {
    LaunchTelemetry telemetry;
    const PerfSnapshot* const start = record.startSnapshot();
    const PerfSnapshot* const end = record.endSnapshot();
    const auto delta = delta_cpu_statistics(start ? start->cpu_stats() : nullptr, end ? end->cpu_stats() : nullptr);
    if (!delta) return telemetry;
    for (std::int32_t i = 0; i < delta->count; ++i) {
        const task_statistics& task = delta->tasks[static_cast<std::size_t>(i)];
        if (task.pid != record.pid()) continue;
        telemetry.cpuTimeMs = msFromTicks(task.usage.userTime + task.usage.systemTime);
        telemetry.ioKilobytes = (task.usage.diskBytesRead + task.usage.diskBytesWritten) / 1000;
        break;
    }
    return telemetry;
}

}  // namespace

void AppActivationTracker::signpostBeginOfLaunch(std::int32_t pid, const std::string& bundleID) {
    if (!settings().internalBuild) return;
    if (emitsInterval(pid)) {
        platform().signposts.intervalBegin(static_cast<std::uint32_t>(pid), kIntervalName, kBeginFormat,
                                           {.string1 = bundleID, .number1 = {}, .number2 = {}});
    }
    activationState().signpostLog->info("appLaunch interval began for %@", bundleID);
}

void AppActivationTracker::signpostEndOfLaunch(std::int32_t pid, const std::string& bundleID, bool isValidEndOfLaunch) {
    if (!settings().internalBuild) return;
    const auto found = appActivationDictionary.find(activationKey(pid, bundleID));
    if (found == appActivationDictionary.end() || !isValidEndOfLaunch) {
        if (emitsInterval(pid)) {
            platform().signposts.intervalEnd(static_cast<std::uint32_t>(pid), kIntervalName, kEndFormat,
                                             {.string1 = bundleID, .number1 = 0, .number2 = 0});
        }
        return;
    }
    const LaunchTelemetry telemetry = measureLaunch(*found->second);
    if (emitsInterval(pid)) {
        platform().signposts.intervalEnd(
            static_cast<std::uint32_t>(pid), kIntervalName, kEndWithTelemetryFormat,
            {.string1 = bundleID, .number1 = telemetry.cpuTimeMs, .number2 = telemetry.ioKilobytes});
    }
    const LogHandle& log = *activationState().signpostLog;
    log.info("appLaunch interval ended for %@", bundleID);
    log.info("stats for processBundleId: %s", bundleID);
    log.info("-----------------------------");
    log.info("appCPUTimeInMs:%llu  appIOInKB: %llu", telemetry.cpuTimeMs, telemetry.ioKilobytes);
}

}  // namespace quorvix
