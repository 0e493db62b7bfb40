#pragma once

#include <algorithm>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "platform/Services.h"

namespace quorvix::sim {

// Scripted processes: an executable path by pid. A pid without one fails. One thread.
class SimProcesses : public ProcessQueries {
public:
    // Bytes of a path need not be text.
    void setExecutablePath(std::int32_t pid, std::string path) { paths_[pid] = std::move(path); }
    void remove(std::int32_t pid) { paths_.erase(pid); }

    std::size_t executablePath(std::int32_t pid, std::span<char> buffer) override {
        asked_.push_back(pid);
        const auto found = paths_.find(pid);
        if (found == paths_.end()) return 0;
        const std::size_t length = std::min(found->second.size(), buffer.size());
        std::copy_n(found->second.begin(), length, buffer.begin());
        if (length < buffer.size()) buffer[length] = '\0';
        return length;
    }

    // The pids that were asked for, in order.
    const std::vector<std::int32_t>& asked() const { return asked_; }

private:
    std::map<std::int32_t, std::string> paths_;
    std::vector<std::int32_t> asked_;
};

}  // namespace quorvix::sim
