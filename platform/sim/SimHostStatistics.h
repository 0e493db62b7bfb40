#pragma once

#include "platform/VMStatistics.h"
#include "platform/sim/Faults.h"

namespace quorvix::sim {

// The host's figures as a test sets them. "vmStatistics64" and "bootTimeSeconds" can fail. One thread.
class SimHostStatistics : public HostStatistics {
public:
    vm_statistics64 statistics{};
    std::uint64_t pageBytes = 4096;
    std::int64_t bootTime = 1768478400 - 1000;  // the simulated device has been up for 1000 s

    Result<void> vmStatistics64(vm_statistics64& out, std::uint32_t count) override {
        counts_.push_back(count);
        if (const auto error = faults.take("vmStatistics64")) return *error;
        out = statistics;
        return {};
    }
    std::uint64_t pageSize() override { return pageBytes; }
    Result<std::int64_t> bootTimeSeconds() override {
        if (const auto error = faults.take("bootTimeSeconds")) return *error;
        return bootTime;
    }

    // The element counts that were passed, in order.
    const std::vector<std::uint32_t>& counts() const { return counts_; }

    void forgetCalls() { counts_.clear(); }

    Faults faults;

private:
    std::vector<std::uint32_t> counts_;
};

}  // namespace quorvix::sim
