#include "perfstats/PerfState.h"

#include "platform/Platform.h"
#include "platform/PropertyList.h"

namespace quorvix {

namespace {

// Never destroyed: the process ends without running destructors beside live threads.
std::unique_ptr<PerfState>& perfStateHolder() {
    static auto* const state = new std::unique_ptr<PerfState>(std::make_unique<PerfState>());
    return *state;
}

}  // namespace

PerfState& perfState() { return *perfStateHolder(); }

void resetPerfState() { perfStateHolder() = std::make_unique<PerfState>(); }

bool SnapshotMemory::reserve(std::size_t bytes) noexcept {
    const std::uint64_t failAt = failAt_;
    if (failAt != 0) failAt_ = failAt - 1;
    const std::size_t used = used_.fetch_add(bytes, std::memory_order_relaxed);
    if (failAt != 1 && bytes <= maximum_ && used <= maximum_ - bytes) return true;
    used_.fetch_sub(bytes, std::memory_order_relaxed);
    refusals_.add(1);
    return false;
}

double nsPerTick() {
    PerfState& state = perfState();
    if (state.nsPerTick < 0) {
        const TickRatio ratio = platform().tickClock.ratio();
        state.nsPerTick = static_cast<double>(ratio.numerator) / static_cast<double>(ratio.denominator);
    }
    return state.nsPerTick;
}

std::uint64_t msFromTicks(std::uint64_t ticks) {
    return saturated<std::uint64_t>(static_cast<double>(ticks) * nsPerTick() / 1'000'000.0);
}

}  // namespace quorvix
