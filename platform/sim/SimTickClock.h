#pragma once

#include "platform/Check.h"
#include "platform/Time.h"
#include "platform/quorvix_ticks.h"
#include "platform/sim/SimScheduler.h"

namespace quorvix::sim {

// The tick clock over virtual time. Tests of exact thresholds use the ratio kMillisecondTicks.
class SimTickClock final : public TickClock {
public:
    static constexpr TickRatio kDeviceTicks{QUORVIX_TICK_RATIO_NUMERATOR, QUORVIX_TICK_RATIO_DENOMINATOR};
    static constexpr TickRatio kMillisecondTicks{1'000'000, 1};

    // The scheduler outlives the clock. Precondition: no part of the ratio is 0.
    explicit SimTickClock(const SimScheduler& scheduler, TickRatio ratio = kDeviceTicks)
        : scheduler_(scheduler), ratio_(ratio) {
        check(ratio.numerator > 0 && ratio.denominator > 0, "a tick lasts some time");
    }

    std::uint64_t now() noexcept override {
        const auto total = static_cast<std::uint64_t>(scheduler_.monotonicNow().count());
        // floor(total * denominator / numerator) from its parts, which do not overflow.
        const std::uint64_t whole = total / ratio_.numerator;
        const std::uint64_t rest = total % ratio_.numerator;
        return whole * ratio_.denominator + rest * ratio_.denominator / ratio_.numerator;
    }
    TickRatio ratio() noexcept override { return ratio_; }

private:
    const SimScheduler& scheduler_;
    TickRatio ratio_;
};

}  // namespace quorvix::sim
