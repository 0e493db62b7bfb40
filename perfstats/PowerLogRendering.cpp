// An activation as four events of the power log.

#include <algorithm>
#include <vector>

#include "activation/AppActivation.h"
#include "perfstats/PerfStatsProcess.h"
#include "perfstats/StatisticsDelta.h"
#include "perfstats/TaskColumns.h"
#include "platform/Platform.h"
#include "service/Log.h"
#include "service/ServiceState.h"

namespace quorvix {

namespace {

constexpr std::int32_t kCategory = 74;
constexpr std::int32_t kOtherProcessesPid = -1;
constexpr std::string_view kOtherProcessesName = "OtherProcesses";
constexpr std::int32_t kOtherProcessesFlag = 5;
constexpr std::uint8_t kStartSequence = 1;
constexpr std::uint8_t kEndSequence = 2;

// What stands in every dictionary of one activation.
struct Stamp {
    double timestamp;  // s
    std::uint64_t activationID;
};

struct ProcessFigures {
    TaskColumns columns{};
    std::uint64_t readsKb = 0;
    std::uint64_t writesKb = 0;

    static ProcessFigures of(const task_statistics& task) {
        return {taskColumnsOf(task), task.usage.diskBytesRead >> 10, task.usage.diskBytesWritten >> 10};
    }
    void add(const ProcessFigures& other) {
        columns.totalMs += other.columns.totalMs;
        columns.noQosMs += other.columns.noQosMs;
        columns.userInteractiveMs += other.columns.userInteractiveMs;
        columns.userInitiatedMs += other.columns.userInitiatedMs;
        columns.defaultMs += other.columns.defaultMs;
        columns.utilityMs += other.columns.utilityMs;
        columns.maintenanceMs += other.columns.maintenanceMs;
        columns.backgroundMs += other.columns.backgroundMs;
        columns.pageIns += other.columns.pageIns;
        readsKb += other.readsKb;
        writesKb += other.writesKb;
    }
};

std::uint64_t wide(unsigned long long value) { return value; }

PowerLogDictionary processDictionary(const Stamp& stamp, std::uint64_t uniqueID, const ProcessFigures& figures,
                                     std::uint8_t lifecycleState) {
    PowerLogDictionary dictionary;
    dictionary.set("Timestamp", stamp.timestamp);
    dictionary.set("ActivationID", stamp.activationID);
    dictionary.set("UniqueID", uniqueID);
    dictionary.set("TotalCPU_ms", wide(figures.columns.totalMs));
    dictionary.set("QOSDisabled_ms", wide(figures.columns.noQosMs));
    dictionary.set("QOSUserInteractive_ms", wide(figures.columns.userInteractiveMs));
    dictionary.set("QOSUserInitiated_ms", wide(figures.columns.userInitiatedMs));
    dictionary.set("QOSDefault_ms", wide(figures.columns.defaultMs));
    dictionary.set("QOSUtility_ms", wide(figures.columns.utilityMs));
    dictionary.set("QOSMaintenance_ms", wide(figures.columns.maintenanceMs));
    dictionary.set("QOSBackground_ms", wide(figures.columns.backgroundMs));
    dictionary.set("IOReads_kb", figures.readsKb);
    dictionary.set("IOWrites_kb", figures.writesKb);
    dictionary.set("PageIns", wide(figures.columns.pageIns));
    dictionary.set("ProcessLifecycleState", lifecycleState);
    return dictionary;
}

PowerLogDictionary vmDictionary(const vm_statistics64& s, const Stamp& stamp, std::uint8_t sequence) {
    PowerLogDictionary dictionary;
    // 32-bit counts: the difference wraps in 32 bits and is widened then.
    const std::uint32_t freeQueue = s.free_count - s.speculative_count;
    dictionary.set("FreeQueue", std::uint64_t{freeQueue});
    dictionary.set("ActiveQueue", std::uint64_t{s.active_count});
    dictionary.set("SpeculativeQueue", std::uint64_t{s.speculative_count});
    dictionary.set("InactiveQueue", std::uint64_t{s.inactive_count});
    dictionary.set("ThrottledQueue", std::uint64_t{s.throttled_count});
    dictionary.set("WiredQueue", std::uint64_t{s.wire_count});
    dictionary.set("PurgeableQueue", std::uint64_t{s.purgeable_count});
    dictionary.set("FileBackedQueue", std::uint64_t{s.external_page_count});
    dictionary.set("AnonymousQueue", std::uint64_t{s.internal_page_count});
    dictionary.set("CompressorSize", std::uint64_t{s.compressor_page_count});
    dictionary.set("Faults", s.faults);
    dictionary.set("CopyOnWriteFault", s.cow_faults);
    dictionary.set("ZeroFill", s.zero_fill_count);
    dictionary.set("Reactivated", s.reactivations);
    dictionary.set("Purged", s.purges);
    dictionary.set("TotalCompressed", s.total_uncompressed_pages_in_compressor);
    dictionary.set("Decompressions", s.decompressions);
    dictionary.set("Compressions", s.compressions);
    dictionary.set("PageIns", s.pageins);
    dictionary.set("PageOuts", s.pageouts);
    dictionary.set("SwapIns", s.swapins);
    dictionary.set("SwapOuts", s.swapouts);
    dictionary.set("Timestamp", stamp.timestamp);
    dictionary.set("ActivationID", stamp.activationID);
    dictionary.set("SequenceID", sequence);
    return dictionary;
}

// The names to send: by process object, not by identifier, so that a later look-up by pid never matches.
using ProcessMap = std::vector<std::pair<PerfStatsProcess, std::int32_t>>;

PowerLogDictionary processDataOf(const ProcessMap& processes, double timestamp) {
    PowerLogDictionary names;
    for (const auto& entry : processes) {
        const PerfStatsProcess& process = entry.first;
        PowerLogDictionary name;
        name.set("Timestamp", timestamp);
        name.set("UniqueID", process.uniqueIdentifier());
        name.set("ProcessName", process.processName());
        names.set(process.uniqueIdentifier(), std::move(name));
    }
    return names;
}

// The processes of an activation: their dictionaries, and the names not sent before.
class ProcessReport {
public:
    ProcessReport(const Stamp& stamp, std::int32_t appPid, ProcessMap& processes)
        : stamp_(stamp), appPid_(appPid), processes_(processes) {}

    void add(std::int32_t index, const task_statistics& task) {
        PerfStatsProcess process = PerfStatsProcess::processWithPID(task.pid, task.name);
        const ProcessFigures figures = ProcessFigures::of(task);
        const bool reported = static_cast<double>(figures.columns.totalMs) > settings().cpuUtilizationThreshold ||
                              task.lifecycleState == kTaskNew || task.lifecycleState == kTaskDead ||
                              task.pid == appPid_;
        if (reported) {
            statistics_.set(std::int64_t{index},
                            processDictionary(stamp_, process.uniqueIdentifier(), figures, task.lifecycleState));
        } else {
            ++otherCount_;
            others_.add(figures);
        }
        noteName(std::move(process));
    }

    // Ends the list with the processes that were folded together; returns their number.
    std::int32_t finish() {
        if (largestPid_ != 0) perfState().largestTrackedPid = largestPid_;
        const auto others = PerfStatsProcess::processWithPID(kOtherProcessesPid, kOtherProcessesName);
        statistics_.set(std::int64_t{kOtherProcessesPid},
                        processDictionary(stamp_, others.uniqueIdentifier(), others_, kTaskAlive));
        return otherCount_;
    }

    PowerLogDictionary takeStatistics() { return std::move(statistics_); }

private:
    void noteName(PerfStatsProcess process) {
        Relaxed<std::int32_t>& largestTrackedPid = perfState().largestTrackedPid;
        if (appPid_ < largestTrackedPid) {
            quorvixLog().standard(
                " ***** QXActivationStats:Pids rolled over! Resetting our state to track new pids [App pid: %d. Last "
                "Seen:%d] *****",
                appPid_, largestTrackedPid.load());
            largestTrackedPid = -1;
        }
        const std::int32_t pid = process.pid();
        if (pid <= largestTrackedPid) return;
        largestPid_ = std::max(largestPid_, pid);
        processes_.emplace_back(std::move(process), pid);
    }

    Stamp stamp_;
    std::int32_t appPid_;
    ProcessMap& processes_;
    PowerLogDictionary statistics_;
    ProcessFigures others_;
    std::int32_t otherCount_ = 0;
    std::int32_t largestPid_ = 0;
};

}  // namespace

void AppActivation::logAppActivationDataToWattrel() {
    PowerLogDictionary cpuData;
    PowerLogDictionary vmData;
    ProcessMap processes;
    const Stamp stamp{static_cast<double>(startTimestamp_) / 1000.0, appActivationID_};

    if (snapshotTypesToRecord_ & kSnapshotCPU) {
        if (!perfState().otherProcessesSent) {
            processes.emplace_back(PerfStatsProcess::processWithPID(kOtherProcessesPid, kOtherProcessesName),
                                   kOtherProcessesPid);
            perfState().otherProcessesSent = true;
        }
        const auto delta = delta_cpu_statistics(startSnapshot_ ? startSnapshot_->cpu_stats() : nullptr,
                                                endSnapshot_ ? endSnapshot_->cpu_stats() : nullptr);
        if (delta && delta->count > 0) {
            ProcessReport report(stamp, pid_, processes);
            for (std::int32_t i = 0; i < delta->count; ++i) report.add(i, delta->tasks[static_cast<std::size_t>(i)]);
            const std::int32_t others = report.finish();
            cpuData = report.takeStatistics();
            quorvixLog().standard("QXActivationStats: Number of Other Processes:%d", others);
            insertActivationFlag(static_cast<std::uint64_t>(others), kOtherProcessesFlag, appActivationFlags_);
        }
    }
    if (snapshotTypesToRecord_ & kSnapshotVM) {
        const vm_statistics64* const start = startSnapshot_ ? startSnapshot_->vm_stats() : nullptr;
        const vm_statistics64* const end = endSnapshot_ ? endSnapshot_->vm_stats() : nullptr;
        if (start) vmData.set(std::int64_t{kStartSequence}, vmDictionary(*start, stamp, kStartSequence));
        if (end) vmData.set(std::int64_t{kEndSequence}, vmDictionary(*end, stamp, kEndSequence));
    }

    // Looked up by pid in a map keyed by process objects, so never found: the app's name is always sent anew. Kept,
    // because readers join on it.
    const auto app = PerfStatsProcess::processWithPID(pid_, processName_.empty() ? bundleID_ : processName_);
    processes.emplace_back(app, pid_);

    PowerLogDictionary activationData;
    activationData.set("Timestamp", stamp.timestamp);
    activationData.set("ActivationID", stamp.activationID);
    activationData.set("UniqueID", app.uniqueIdentifier());
    activationData.set("SystemUptime", systemUptime_);
    activationData.set("BundleID", bundleID_);
    activationData.set("ActivationDuration_ms", std::uint64_t{wallTime_});
    activationData.set("ActivationResult", appActivationResult_);
    activationData.set("ActivationType", appActivationType_);
    activationData.set("ActivationFlags", appActivationFlags_);
    quorvixLog().debug("QXActivationStats: Sending Activation Flags:%llx", appActivationFlags_);
    quorvixLog().debug("QXActivationStats: StartTime we got:%@", PowerLogValue(stamp.timestamp));

    const PowerLogDictionary processData = processDataOf(processes, stamp.timestamp);
    PowerLog& log = platform().powerLog;
    log.sendEvent(kCategory, "ActivationData", activationData);
    log.sendEvent(kCategory, "ProcessData", processData);
    log.sendEvent(kCategory, "CPUStatistics", cpuData);
    log.sendEvent(kCategory, "MemoryStatistics", vmData);
    quorvixLog().debug("QXActivationStats: Activation Data:%@\n", activationData);
    quorvixLog().debug("QXActivationStats: CPU Data:%@\n", cpuData);
    quorvixLog().debug("QXActivationStats: VM Data:%@\n", vmData);
    quorvixLog().debug("QXActivationStats: Process Data:%@\n", processData);
}

}  // namespace quorvix
