#include "perfstats/PerfSnapshot.h"

#include <new>

#include "platform/Platform.h"
#include "service/Log.h"

namespace quorvix {

namespace {

// A zeroed record paid for from the snapshot memory only while it is made: records are small, their arrays are not.
template <class T>
std::unique_ptr<T> makeRecord() {
    if (!perfState().memory.reserve(sizeof(T))) return nullptr;
    perfState().memory.release(sizeof(T));
    return std::unique_ptr<T>(new (std::nothrow) T());
}

}  // namespace

std::unique_ptr<PerfSnapshot> PerfSnapshot::createPerformanceSnapshotWithOptions(std::uint8_t options) {
    auto snapshot = makeRecord<PerfSnapshot>();
    if (!snapshot) {
        quorvixLog().standard("QXActivationStats: get_performance_snapshot: Failed to allocate memory\n");
        return nullptr;
    }
    if (options & kSnapshotCPU) {
        auto statistics = makeRecord<cpu_statistics>();
        if (statistics && get_cpu_stats(*statistics)) snapshot->setCpu_stats(std::move(statistics));
    }
    if (options & kSnapshotVM) {
        auto statistics = makeRecord<vm_statistics64>();
        if (statistics && get_vm_stats(*statistics)) snapshot->setVm_stats(std::move(statistics));
    }
    return snapshot;
}

bool get_cpu_stats(cpu_statistics& out) {
    ProcessQueries& processes = platform().processes;
    const std::int32_t pidCount = processes.listAllPids(nullptr, 0) >> 2;
    if (pidCount <= 0) {
        quorvixLog().standard("QXActivationStats: get_cpu_stats: Process count returned less than zero\n");
        return false;
    }
    const auto count = static_cast<std::size_t>(pidCount);
    const auto pids = SnapshotArray<std::int32_t>::allocate(count);
    if (!pids) {
        quorvixLog().standard("QXActivationStats: get_cpu_stats: Failed to allocate memory for pids\n");
        return false;
    }
    if (processes.listAllPids(pids.get(), pidCount * static_cast<std::int32_t>(sizeof(std::int32_t))) < 1) {
        // The one message without the common prefix, deliberately.
        quorvixLog().standard("get_cpu_stats: Found no processes\n");
        return false;
    }
    out.tasks = SnapshotArray<task_statistics>::allocate(count);
    if (!out.tasks) {
        quorvixLog().standard("QXActivationStats: get_cpu_stats: Failed to allocate memory for tasks\n");
        return false;
    }
    std::size_t filled = 0;
    bool zeroSeen = false;
    for (std::size_t slot = 0; slot < count; ++slot) {
        const std::int32_t pid = pids[slot];
        task_statistics& task = out.tasks[filled];
        task.name[0] = '^';
        if (pid == 0) {
            // The first is the kernel; the others are the list's unused end.
            if (zeroSeen) continue;
            zeroSeen = true;
        }
        if (const auto queried = processes.resourceUsage(pid, task.usage); !queried) {
            quorvixLog().standard("QXActivationStats: ** Failed to get rusage info for pid %d error:%s number:%d **",
                                  pid, queried.error(), queried.error().value);
            continue;
        }
        task.pid = pid;
        if (const auto named = processes.processName(pid, task.name); !named) {
            quorvixLog().standard("QXActivationStats: ** Process name not found for pid %d error:%s**", pid,
                                  named.error());
            task.name[0] = '\0';
        }
        ++filled;
    }
    out.count = static_cast<std::int32_t>(filled);
    return true;
}

bool get_vm_stats(vm_statistics64& out) {
    if (platform().host.vmStatistics64(out, kVMStatistics64Count)) return true;
    quorvixLog().standard("QXActivationStats: get_vm_stats: vm_statistics64 failed to get vm stats\n");
    return false;
}

}  // namespace quorvix
