#pragma once

#include <cstdint>
#include <memory>

#include "perfstats/PerfState.h"
#include "platform/ResourceUsage.h"
#include "platform/VMStatistics.h"

namespace quorvix {

inline constexpr std::size_t kTaskNameCapacity = 32;

enum TaskLifecycle : std::uint8_t { kTaskAlive = 0, kTaskNew = 1, kTaskDead = 2 };

// One process at one moment, or its difference between two.
struct task_statistics {
    std::int32_t pid;
    char name[kTaskNameCapacity];  // NUL-terminated; empty when the query failed
    std::uint8_t lifecycleState;   // TaskLifecycle; set by the delta only
    ResourceUsage usage;
};

struct cpu_statistics {
    std::int32_t count = 0;  // valid entries of tasks
    SnapshotArray<task_statistics> tasks;
};

// Never filled; the record exists.
struct power_statistics {};

// What a snapshot holds.
enum SnapshotOption : std::uint8_t { kSnapshotCPU = 1, kSnapshotVM = 2 };

// The counters of every process and of the host at one moment. Immutable once made; owned by the activation that had
// it taken. A part that was not asked for or could not be captured is absent.
class PerfSnapshot {
public:
    // Takes a snapshot of what the option bits ask for; other bits are ignored. nullptr only without memory for the
    // object itself. A capture that fails leaves its part absent, with a line in the log.
    static std::unique_ptr<PerfSnapshot> createPerformanceSnapshotWithOptions(std::uint8_t options);

    // Its entries may be reordered by whoever computes a difference; nothing else changes.
    cpu_statistics* cpu_stats() const { return cpu_stats_.get(); }
    const vm_statistics64* vm_stats() const { return vm_stats_.get(); }
    const power_statistics* power_stats() const { return power_stats_.get(); }
    void setCpu_stats(std::unique_ptr<cpu_statistics> statistics) { cpu_stats_ = std::move(statistics); }
    void setVm_stats(std::unique_ptr<vm_statistics64> statistics) { vm_stats_ = std::move(statistics); }
    void setPower_stats(std::unique_ptr<power_statistics> statistics) { power_stats_ = std::move(statistics); }

private:
    std::unique_ptr<cpu_statistics> cpu_stats_;
    std::unique_ptr<vm_statistics64> vm_stats_;
    std::unique_ptr<power_statistics> power_stats_;
};

// Fills a zeroed record. False: failed, and said in the log.
[[nodiscard]] bool get_cpu_stats(cpu_statistics& out);
[[nodiscard]] bool get_vm_stats(vm_statistics64& out);

}  // namespace quorvix
