#include "platform/sim/SimRandom.h"

#include "platform/linux/UniformDraw.h"

namespace quorvix::sim {

std::uint32_t SimRandom::uniform(std::uint32_t bound) {
    bounds_.push_back(bound);
    return linuxos::drawUniform(bound, [this] { return nextWord(); });
}

// splitmix64, its high half.
std::uint32_t SimRandom::nextWord() {
    state_ += 0x9E3779B97F4A7C15u;
    std::uint64_t mixed = state_;
    mixed = (mixed ^ (mixed >> 30)) * 0xBF58476D1CE4E5B9u;
    mixed = (mixed ^ (mixed >> 27)) * 0x94D049BB133111EBu;
    return static_cast<std::uint32_t>((mixed ^ (mixed >> 31)) >> 32);
}

}  // namespace quorvix::sim
