#include <gtest/gtest.h>

#include <array>

#include "platform/linux/RandomSource.h"
#include "platform/sim/SimRandom.h"

namespace quorvix::random_contract {
namespace {

template <class Random>
class RandomContract : public testing::Test {
protected:
    Random random_;
};

using Services = testing::Types<linuxos::LinuxRandomSource, sim::SimRandom>;
TYPED_TEST_SUITE(RandomContract, Services);

TYPED_TEST(RandomContract, ABoundOfOneGivesZero) {
    for (int draw = 0; draw < 100; ++draw) EXPECT_EQ(this->random_.uniform(1), 0u);
}

TYPED_TEST(RandomContract, StaysBelowItsBound) {
    for (const std::uint32_t bound : {2u, 3u, 20u, 0x80000001u, 0xFFFFFFFFu}) {
        for (int draw = 0; draw < 1000; ++draw) EXPECT_LT(this->random_.uniform(bound), bound);
    }
}

// 30000 draws in three equal cells: 10000 +- 82 (one standard deviation); 600 is more than seven of them.
TYPED_TEST(RandomContract, EveryResultIsEquallyLikely) {
    std::array<int, 3> cells{};
    for (int draw = 0; draw < 30000; ++draw) ++cells[this->random_.uniform(3)];
    for (const int count : cells) EXPECT_NEAR(count, 10000, 600);
}

// With a modulo of a 32-bit word, the lower third of 0..3*2^30-1 would come up twice as often as the rest.
TYPED_TEST(RandomContract, HasNoModuloBias) {
    constexpr std::uint32_t kBound = 3u << 30;
    int low = 0;
    for (int draw = 0; draw < 30000; ++draw) low += this->random_.uniform(kBound) < (1u << 30);
    EXPECT_NEAR(low, 10000, 600);
}

TEST(SimRandomTest, TheSameSeedGivesTheSameDraws) {
    sim::SimRandom one(7);
    sim::SimRandom two(7);
    sim::SimRandom other(8);
    bool differs = false;
    for (int draw = 0; draw < 100; ++draw) {
        const std::uint32_t value = one.uniform(1000);
        EXPECT_EQ(value, two.uniform(1000));
        differs |= value != other.uniform(1000);
    }
    EXPECT_TRUE(differs);
    EXPECT_EQ(one.bounds().size(), 100u);
}

}  // namespace
}  // namespace quorvix::random_contract
