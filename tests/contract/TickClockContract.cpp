#include <gtest/gtest.h>

#include <chrono>
#include <ctime>

#include "platform/linux/Clocks.h"
#include "platform/sim/SimTickClock.h"

namespace quorvix::tick_clock_contract {
namespace {

using namespace std::chrono_literals;

struct LinuxClock {
    linuxos::LinuxTickClock clock;

    std::uint64_t nanosecondsNow() {
        timespec time{};
        clock_gettime(CLOCK_MONOTONIC, &time);
        return static_cast<std::uint64_t>(time.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(time.tv_nsec);
    }
    void pass() {}
};

struct SimulatedClock {
    sim::SimScheduler scheduler;
    sim::SimTickClock clock{scheduler};

    std::uint64_t nanosecondsNow() { return static_cast<std::uint64_t>(scheduler.monotonicNow().count()); }
    void pass() { scheduler.advance(41ns); }
};

template <class Harness>
class TickClockContract : public testing::Test {
protected:
    Harness harness;
};

using Clocks = testing::Types<LinuxClock, SimulatedClock>;
TYPED_TEST_SUITE(TickClockContract, Clocks);

TYPED_TEST(TickClockContract, OneTickIs125ThirdsOfANanosecond) {
    EXPECT_EQ(this->harness.clock.ratio().numerator, 125u);
    EXPECT_EQ(this->harness.clock.ratio().denominator, 3u);
}

TYPED_TEST(TickClockContract, CountsTheMonotonicClockRoundedDown) {
    for (int turn = 0; turn < 1000; ++turn) {
        const std::uint64_t before = this->harness.nanosecondsNow();
        const std::uint64_t ticks = this->harness.clock.now();
        const std::uint64_t after = this->harness.nanosecondsNow();
        ASSERT_GE(ticks, before * 3 / 125);
        ASSERT_LE(ticks, after * 3 / 125);
        this->harness.pass();
    }
}

TYPED_TEST(TickClockContract, NeverRunsBackwards) {
    std::uint64_t last = this->harness.clock.now();
    for (int turn = 0; turn < 1000; ++turn) {
        this->harness.pass();
        const std::uint64_t next = this->harness.clock.now();
        ASSERT_GE(next, last);
        last = next;
    }
}

}  // namespace
}  // namespace quorvix::tick_clock_contract
