#include <gtest/gtest.h>

extern "C" {
#include "backoff.h"
}

namespace {

TEST(BackoffTest, DoublesUpToTheLongestAndStaysThere) {
    quorvix_backoff backoff{};
    for (std::uint32_t expected : {50u, 100u, 200u, 400u, 800u, 1600u, 3200u, 5000u, 5000u}) {
        EXPECT_EQ(quorvix_backoff_step(&backoff, QUORVIX_BACKOFF_LONGEST_MS, 0), expected);
    }
}

TEST(BackoffTest, StartsAgainAfterReset) {
    quorvix_backoff backoff{};
    quorvix_backoff_step(&backoff, 5000, 0);
    quorvix_backoff_step(&backoff, 5000, 0);
    quorvix_backoff_reset(&backoff);
    EXPECT_EQ(quorvix_backoff_step(&backoff, 5000, 0), 50u);
}

TEST(BackoffTest, JitterTakesOffAtMostAQuarter) {
    std::uint32_t least = UINT32_MAX;
    for (std::uint32_t random = 0; random < 1000; ++random) {
        quorvix_backoff backoff{400};
        const std::uint32_t wait = quorvix_backoff_step(&backoff, 5000, random);
        ASSERT_GE(wait, 300u);
        ASSERT_LE(wait, 400u);
        least = wait < least ? wait : least;
    }
    EXPECT_EQ(least, 300u);
}

TEST(BackoffTest, AShorterLongestTakesEffectAtOnce) {
    quorvix_backoff backoff{60000};
    EXPECT_EQ(quorvix_backoff_step(&backoff, 5000, 0), 5000u);
}

}  // namespace
