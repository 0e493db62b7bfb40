#include "report/StateStrip.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>

namespace quorvix::report {
namespace {

using enum Activity;
using Piece = StateStrip::Run;
using testing::ElementsAre;

constexpr Interval kShown{1000, 2000};

TEST(StateStrip, EachSliceIsWhatTheThreadDidForMostOfIt) {
    StateStrip strip(kShown, 10);
    strip.add(running, {1000, 1249});
    strip.add(sleeping, {1249, 1900});
    EXPECT_THAT(strip.runs(), ElementsAre(Piece{running, 2}, Piece{sleeping, 7}, Piece{unknown, 1}));
}

TEST(StateStrip, MoreThanHalfOfASliceDecides) {
    for (const std::uint64_t end : {1050, 1051}) {
        StateStrip strip(kShown, 10);
        strip.add(sleeping, {1000, end});
        EXPECT_EQ(strip.runs().front().activity, end > 1050 ? sleeping : unknown) << end;
    }
}

TEST(StateStrip, WhatLiesOutsideOfTheWindowIsLeftOut) {
    StateStrip strip(kShown, 4);
    strip.add(running, {0, 1000});
    strip.add(sleeping, {2000, UINT64_MAX});
    EXPECT_THAT(strip.runs(), ElementsAre(Piece{unknown, 4}));
    strip.add(stopped, {0, UINT64_MAX});
    EXPECT_THAT(strip.runs(), ElementsAre(Piece{stopped, 4}));
}

TEST(StateStrip, MovesNoMoreThanThereWas) {
    StateStrip strip(kShown, 4);
    strip.add(running, {1000, 1500});
    strip.add(uninterruptible, {1500, 2000});
    strip.move(uninterruptible, sleeping, {0, 2000});
    EXPECT_THAT(strip.runs(), ElementsAre(Piece{running, 2}, Piece{sleeping, 2}));
}

TEST(StateStrip, HasNoMoreSlicesThanNanoseconds) {
    StateStrip strip({5, 8}, 100);
    strip.add(running, {6, 7});
    EXPECT_THAT(strip.runs(), ElementsAre(Piece{unknown, 1}, Piece{running, 1}, Piece{unknown, 1}));
    EXPECT_TRUE(StateStrip(kShown, 0).runs().empty());
    EXPECT_TRUE(StateStrip({8, 5}, 100).runs().empty());
}

TEST(StateStrip, AWindowOfCenturiesIsCutWithoutOverflow) {
    StateStrip strip({1, UINT64_MAX}, 480);
    strip.add(running, {UINT64_MAX / 2, UINT64_MAX});
    const auto runs = strip.runs();
    ASSERT_EQ(runs.size(), 2U);
    EXPECT_EQ(runs[0], (Piece{unknown, 240}));
    EXPECT_EQ(runs[1], (Piece{running, 240}));
}

}  // namespace
}  // namespace quorvix::report
