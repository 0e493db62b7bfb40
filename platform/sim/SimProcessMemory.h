#pragma once

#include <cerrno>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/KernelMemory.h"
#include "platform/sim/Faults.h"

namespace quorvix::sim {

// Scripted processes in the order of the priority list. "priorityList", "executablePath" and "physicalFootprint" can
// fail. One thread.
class SimProcessMemory : public ProcessMemory {
public:
    struct Process {
        std::int32_t pid = 0;
        std::int32_t priority = 0;
        std::uint32_t state = 0;
        std::optional<std::string> path{};              // nothing: it is gone when it is asked for
        std::optional<std::uint64_t> footprintBytes{};  // nothing: its ledger can't be read
        std::uint64_t assertions = 0;
    };
    std::vector<Process> processes;

    Result<std::vector<MemoryPriority>> priorityList() override {
        if (const auto error = faults.take("priorityList")) return *error;
        std::vector<MemoryPriority> list;
        for (const Process& process : processes) list.push_back({process.pid, process.priority, process.state});
        return list;
    }
    Result<std::string> executablePath(std::int32_t pid) override {
        if (const auto error = faults.take("executablePath")) return *error;
        const Process* const process = find(pid);
        if (!process || !process->path) return ErrorCode{ESRCH};
        return *process->path;
    }
    Result<std::uint64_t> physicalFootprint(std::int32_t pid) override {
        if (const auto error = faults.take("physicalFootprint")) return *error;
        const Process* const process = find(pid);
        if (!process || !process->footprintBytes) return ErrorCode{ESRCH};
        return *process->footprintBytes;
    }
    std::uint64_t assertions(std::int32_t pid) override {
        const Process* const process = find(pid);
        return process ? process->assertions : 0;
    }

    Faults faults;

private:
    const Process* find(std::int32_t pid) const {
        for (const Process& process : processes) {
            if (process.pid == pid) return &process;
        }
        return nullptr;
    }
};

}  // namespace quorvix::sim
