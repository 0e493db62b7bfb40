#pragma once

#include <algorithm>
#include <cstdint>

#include "simulate/Require.h"

namespace quorvix::simulate {

// Bytes that this process has allocated and not given back, with and without sanitizers.
std::uint64_t heldBytes();

// Hour by hour: what is held may not grow with the length of a run.
class HeldMemory {
public:
    // Start-up, the first snapshots and the first of everything: the most of these hours is the measure.
    static constexpr std::uint64_t kSettlingHours = 6;
    // What one hour may hold more than another: open activations, messages on their way, free pages.
    static constexpr std::uint64_t kSwingBytes = 192 << 10;
    // What the simulation itself keeps of a day, as its list of actions and of mappings: about 50 KiB.
    static constexpr std::uint64_t kGrowthBytesADay = 80 << 10;

    void hour(std::uint64_t held) {
        if (++hours_ <= kSettlingHours) {
            settled_ = std::max(settled_, held);
            return;
        }
        require(held <= settled_ + kSwingBytes + kGrowthBytesADay * (hours_ - kSettlingHours) / 24,
                "memory grows without bound");
    }

private:
    std::uint64_t hours_ = 0;
    std::uint64_t settled_ = 0;
};

}  // namespace quorvix::simulate
