#pragma once

#include <memory>
#include <string>
#include <vector>

#include "perfstats/PerfSnapshot.h"
#include "tests/activation/ActivationWorld.h"

namespace quorvix::test {

// Tables of processes made by hand.
class TableWorld : public ActivationWorld {
protected:
    struct Entry {
        std::int32_t pid;
        std::string name;  // at most 31 characters
        std::uint64_t userTime;
        ResourceUsage usage{};  // all but the user time

        ResourceUsage whole() const {
            ResourceUsage all = usage;
            all.userTime = userTime;
            return all;
        }
    };

    static std::unique_ptr<cpu_statistics> table(const std::vector<Entry>& entries) {
        auto made = std::make_unique<cpu_statistics>();
        made->tasks = SnapshotArray<task_statistics>::allocate(entries.size());
        for (const Entry& entry : entries) {
            task_statistics& task = made->tasks[static_cast<std::size_t>(made->count++)];
            task.pid = entry.pid;
            std::memcpy(task.name, entry.name.data(), entry.name.size());
            task.usage = entry.whole();
        }
        return made;
    }

    // A finished activation whose snapshots saw these processes.
    std::shared_ptr<AppActivation> activation(std::uint8_t type, const std::vector<sim::SimProcesses::Task>& start,
                                              const std::vector<sim::SimProcesses::Task>& end) {
        device.processes.tasks = start;
        const auto record = AppActivation::initWithStatisticsType(type, kPid, kBundle, kNow - 500, kNow, 1, 1);
        device.processes.tasks = end;
        record->activationEndedWithResult(3, kNow);
        device.log.clear();
        return record;
    }
};

}  // namespace quorvix::test
