#pragma once

#include <cstdint>
#include <initializer_list>

namespace quorvix::simulate {

// splitmix64: small, the same on every machine, and forked by number, so that leaving out one action of a run changes
// no other.
class Dice {
public:
    explicit Dice(std::uint64_t seed) : state_(seed) {}
    // Throws of their own for one numbered purpose.
    static Dice forked(std::uint64_t seed, std::uint64_t number) {
        Dice mixer(seed ^ (number * 0xD6E8FEB86659FD93u));
        return Dice(mixer.word());
    }

    std::uint64_t word() {
        state_ += 0x9E3779B97F4A7C15u;
        std::uint64_t mixed = state_;
        mixed = (mixed ^ (mixed >> 30)) * 0xBF58476D1CE4E5B9u;
        mixed = (mixed ^ (mixed >> 27)) * 0x94D049BB133111EBu;
        return mixed ^ (mixed >> 31);
    }
    // 0..bound-1; the bias is of no account here. Precondition: bound > 0.
    std::uint64_t below(std::uint64_t bound) { return word() % bound; }
    std::int64_t between(std::int64_t first, std::int64_t last) {
        return first + static_cast<std::int64_t>(below(static_cast<std::uint64_t>(last - first) + 1));
    }
    bool oneIn(std::uint64_t n) { return below(n) == 0; }
    template <class T>
    T oneOf(std::initializer_list<T> choices) {
        return choices.begin()[below(choices.size())];
    }

private:
    std::uint64_t state_;
};

}  // namespace quorvix::simulate
