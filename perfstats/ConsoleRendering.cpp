// An activation as a table on the console.

#include "perfstats/ConsoleRendering.h"

#include "activation/AppActivation.h"
#include "perfstats/Printf.h"
#include "perfstats/StatisticsDelta.h"
#include "perfstats/VMColumns.h"
#include "platform/Platform.h"

namespace quorvix {

namespace {

const char* stateText(std::uint8_t lifecycleState) {
    switch (lifecycleState) {
        case kTaskAlive: return "";
        case kTaskNew: return "NEW";
        default: return "DEAD";
    }
}

void showProcesses(cpu_statistics* start, cpu_statistics* end) {
    const auto delta = delta_cpu_statistics(start, end);
    if (!delta) return;
    Console& console = platform().console;
    console.log(formatText("Found %d processes\n", delta->count));
    console.log(consoleTableHeader());
    for (std::int32_t i = 0; i < delta->count; ++i) {
        const task_statistics& task = delta->tasks[static_cast<std::size_t>(i)];
        console.log(consoleTableLine(task.pid, task.name, taskColumnsOf(task), task.lifecycleState));
    }
}

void showVMStatistics(const char* title, const vm_statistics64& statistics) {
    platform().console.print(std::string(title) + "\n" + vmStatisticsBlock(statistics));
}

}  // namespace

std::string consoleTableHeader() {
    std::string header;
    // "vm_stat" and "(ms)" stand around the third column as they always have.
    appendPrintf(header, "%*s %*s vm_stat%*s(ms) %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s\n", 7, "PID", 32, "Name", 10,
                 "Total-CPU", 10, "No-QOS", 15, "UInteractive", 10, "UInitiated", 10, "Default", 10, "Utility", 15,
                 "Maintenance", 10, "Background", 10, "Bytes Read", 15, "Bytes Written", 10, "PageIns");
    return header;
}

std::string consoleTableLine(std::int32_t pid, const char* name, const TaskColumns& columns,
                             std::uint8_t lifecycleState) {
    std::string line;
    appendPrintf(line, "%7d %32s %13llu %10llu %15llu %10llu %10llu %10llu %15llu %10llu %10llu %15llu %10llu %s \n",
                 pid, name, columns.totalMs, columns.noQosMs, columns.userInteractiveMs, columns.userInitiatedMs,
                 columns.defaultMs, columns.utilityMs, columns.maintenanceMs, columns.backgroundMs, columns.bytesRead,
                 columns.bytesWritten, columns.pageIns, stateText(lifecycleState));
    return line;
}

void AppActivation::logAppActivationDataToConsole() {
    if (snapshotTypesToRecord_ & kSnapshotCPU) {
        showProcesses(startSnapshot_ ? startSnapshot_->cpu_stats() : nullptr,
                      endSnapshot_ ? endSnapshot_->cpu_stats() : nullptr);
    }
    if (snapshotTypesToRecord_ & kSnapshotVM) {
        const vm_statistics64* const start = startSnapshot_ ? startSnapshot_->vm_stats() : nullptr;
        const vm_statistics64* const end = endSnapshot_ ? endSnapshot_->vm_stats() : nullptr;
        // A capture that failed leaves its blocks out.
        if (start) showVMStatistics("\nStart VM Statistics (pages)", *start);
        if (end) showVMStatistics("\nEnd VM Statistics (pages)", *end);
        if (start && end) showVMStatistics("\nDelta VM Statistics (pages)", vmStatisticsDelta(*start, *end));
    }
}

}  // namespace quorvix
