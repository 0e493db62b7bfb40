#pragma once

#include <cstdint>
#include <vector>

#include "platform/Services.h"

namespace quorvix::sim {

// Seeded and deterministic: the same seed gives the same draws on every machine. One thread.
class SimRandom : public RandomSource {
public:
    explicit SimRandom(std::uint64_t seed = 1) : state_(seed) {}

    std::uint32_t uniform(std::uint32_t bound) override;

    // The bounds that were asked for, in order.
    const std::vector<std::uint32_t>& bounds() const { return bounds_; }
    void forgetCalls() { bounds_.clear(); }

private:
    std::uint32_t nextWord();

    std::uint64_t state_;
    std::vector<std::uint32_t> bounds_;
};

}  // namespace quorvix::sim
