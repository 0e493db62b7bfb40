#pragma once

#include <chrono>

namespace quorvix::swivex {

// The moment past which a dump does no more work. A dump blocks its caller's queue, so every loop asks.
class Deadline {
public:
    using Clock = std::chrono::steady_clock;

    explicit Deadline(Clock::time_point at) : at_(at) {}
    static Deadline in(Clock::duration time) { return Deadline(Clock::now() + time); }

    bool passed() const { return Clock::now() >= at_; }
    Clock::time_point at() const { return at_; }
    // Zero when it has passed.
    std::chrono::milliseconds left() const {
        const auto time = std::chrono::duration_cast<std::chrono::milliseconds>(at_ - Clock::now());
        return time > std::chrono::milliseconds(0) ? time : std::chrono::milliseconds(0);
    }
    // The moment `reserve` earlier: what has to be done after this work keeps so much time.
    Deadline before(Clock::duration reserve) const { return Deadline(at_ - reserve); }

private:
    Clock::time_point at_;
};

}  // namespace quorvix::swivex
