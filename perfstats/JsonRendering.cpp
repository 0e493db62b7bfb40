// An activation as one JSON-like text in the log.

#include "activation/AppActivation.h"
#include "perfstats/Printf.h"
#include "perfstats/StatisticsDelta.h"
#include "perfstats/TaskColumns.h"
#include "perfstats/VMColumns.h"
#include "service/Log.h"

namespace quorvix {

namespace {

constexpr std::size_t kInitialCapacity = 1048576;

void appendProcess(std::string& text, const task_statistics& task) {
    const TaskColumns columns = taskColumnsOf(task);
    // The name is written raw.
    appendPrintf(text, "\n{\n\t \"pid\":%d,\n\t\"name\":\"%s\",", task.pid, task.name);
    // Seventeen blanks after each comma.
    appendPrintf(text,
                 "\n\t\"total_cpu\":%llu,                 \n\t\"no-qos\":%llu,                 "
                 "\n\t\"user-interactive\":%llu,                 \n\t\"user-initiated\":%llu,                 "
                 "\n\t\"default\":%llu,                 \n\t\"utility\":%llu,                 "
                 "\n\t\"maintenance\":%llu,                 \n\t\"background\":%llu,                 "
                 "\n\t\"bytes-read\":%llu,                 \n\t\"bytes-written\":%llu,                 "
                 "\n\t\"pageins\":%llu,",
                 columns.totalMs, columns.noQosMs, columns.userInteractiveMs, columns.userInitiatedMs,
                 columns.defaultMs, columns.utilityMs, columns.maintenanceMs, columns.backgroundMs, columns.bytesRead,
                 columns.bytesWritten, columns.pageIns);
    appendPrintf(text, "\n\t\"alive\":%d\n}", int{task.lifecycleState});
}

void appendProcesses(std::string& text, cpu_statistics* start, cpu_statistics* end) {
    text += "\"cpu_statistics\":\n[\t";
    if (const auto delta = delta_cpu_statistics(start, end)) {
        for (std::int32_t i = 0; i < delta->count; ++i) {
            appendProcess(text, delta->tasks[static_cast<std::size_t>(i)]);
            if (i + 1 < delta->count) text += ",";
        }
    }
    text += "]\n";
}

}  // namespace

void AppActivation::logAppActivationDataAsJSON() {
    std::string text;
    text.reserve(kInitialCapacity);
    text += "\n{\n";
    if (snapshotTypesToRecord_ & kSnapshotCPU) {
        appendProcesses(text, startSnapshot_ ? startSnapshot_->cpu_stats() : nullptr,
                        endSnapshot_ ? endSnapshot_->cpu_stats() : nullptr);
    }
    // In every case, deliberately: its readers split at this comma.
    text += ",";
    const vm_statistics64* const start = startSnapshot_ ? startSnapshot_->vm_stats() : nullptr;
    const vm_statistics64* const end = endSnapshot_ ? endSnapshot_->vm_stats() : nullptr;
    if ((snapshotTypesToRecord_ & kSnapshotVM) && start && end) {
        text += "\n\"memory_statistics\":\n[\t{" + vmStatisticsJson(*start) + "},\n{" + vmStatisticsJson(*end) + "}\n]";
    }
    text += "}\n";
    quorvixLog().debug("QXActivationStats: Output %@", text);
}

}  // namespace quorvix
