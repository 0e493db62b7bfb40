#pragma once

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "platform/Services.h"
#include "platform/sim/Faults.h"

namespace quorvix::sim {

// Scripted processes: an executable path by pid, and a table of usage and names in the order it was scripted. One
// thread. "listAllPids", "resourceUsage" and "processName" can fail.
class SimProcesses : public ProcessQueries {
public:
    // Bytes of a path need not be text.
    void setExecutablePath(std::int32_t pid, std::string path) { paths_[pid] = std::move(path); }
    void remove(std::int32_t pid) { paths_.erase(pid); }

    // One slot of the pid list. A slot may repeat a pid, and pid 0 may stand several times.
    struct Task {
        std::int32_t pid = 0;
        std::string name;
        ResourceUsage usage{};
        bool usageFails = false;  // the process is gone when it is asked for
    };
    std::vector<Task> tasks;

    std::size_t executablePath(std::int32_t pid, std::span<char> buffer) override {
        asked_.push_back(pid);
        const auto found = paths_.find(pid);
        if (found == paths_.end()) return 0;
        const std::size_t length = std::min(found->second.size(), buffer.size());
        std::copy_n(found->second.begin(), length, buffer.begin());
        if (length < buffer.size()) buffer[length] = '\0';
        return length;
    }

    std::int32_t listAllPids(std::int32_t* pids, std::int32_t bufferBytes) override {
        // An error of number 0 stands for a list without any.
        if (const auto error = faults.take("listAllPids")) return error->value == 0 ? 0 : -1;
        const auto needed = static_cast<std::int32_t>(tasks.size() * sizeof(std::int32_t));
        if (!pids) return needed;
        const auto count = static_cast<std::size_t>(std::min(needed, bufferBytes)) / sizeof(std::int32_t);
        for (std::size_t i = 0; i < count; ++i) pids[i] = tasks[i].pid;
        return static_cast<std::int32_t>(count * sizeof(std::int32_t));
    }
    Result<void> resourceUsage(std::int32_t pid, ResourceUsage& usage) override {
        if (const auto error = faults.take("resourceUsage")) return *error;
        const Task* const task = find(pid);
        if (!task || task->usageFails) return ErrorCode{ESRCH};
        usage = task->usage;
        return {};
    }
    Result<std::size_t> processName(std::int32_t pid, std::span<char> buffer) override {
        if (const auto error = faults.take("processName")) return *error;
        const Task* const task = find(pid);
        if (!task || task->name.empty()) return ErrorCode{ESRCH};
        const std::size_t length = std::min(task->name.size(), buffer.size() - 1);
        std::copy_n(task->name.begin(), length, buffer.begin());
        buffer[length] = '\0';
        return length;
    }

    // The pids whose path was asked for, in order.
    const std::vector<std::int32_t>& asked() const { return asked_; }

    void forgetCalls() { asked_.clear(); }

    Faults faults;

private:
    const Task* find(std::int32_t pid) const {
        for (const Task& task : tasks) {
            if (task.pid == pid) return &task;
        }
        return nullptr;
    }

    std::map<std::int32_t, std::string> paths_;
    std::vector<std::int32_t> asked_;
};

}  // namespace quorvix::sim
