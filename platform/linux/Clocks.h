#pragma once

#include "platform/Time.h"
#include "platform/quorvix_ticks.h"

namespace quorvix::linuxos {

// The 24 MHz tick clock over CLOCK_MONOTONIC, from the one definition that clients share. No state, no system call.
class LinuxTickClock final : public TickClock {
public:
    std::uint64_t now() noexcept override { return quorvix_ticks_now(); }
    TickRatio ratio() noexcept override { return {QUORVIX_TICK_RATIO_NUMERATOR, QUORVIX_TICK_RATIO_DENOMINATOR}; }
};

}  // namespace quorvix::linuxos
