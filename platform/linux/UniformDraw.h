#pragma once

#include <cstdint>

namespace quorvix::linuxos {

// Uniform in 0..bound-1 from a source of uniform 32-bit words: the high half of word * bound, where the few words that
// would favour some results are drawn again. Precondition: bound > 0.
template <class NextWord>
std::uint32_t drawUniform(std::uint32_t bound, NextWord&& nextWord) {
    const std::uint32_t surplus = (0u - bound) % bound;  // 2^32 modulo bound
    while (true) {
        const std::uint64_t product = std::uint64_t{nextWord()} * bound;
        if (static_cast<std::uint32_t>(product) >= surplus) return static_cast<std::uint32_t>(product >> 32);
    }
}

}  // namespace quorvix::linuxos
