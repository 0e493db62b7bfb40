#include <gtest/gtest.h>

#include "fuzz/ConnectionEntry.h"
#include "fuzz/HangChannelEntry.h"
#include "tests/support/FuzzSeeds.h"

namespace quorvix {
namespace {

TEST(ConnectionFuzzTest, EverySeedKeepsTheRulesAndHasAMessageUnlessItIsNamedBad) {
    tests::expectSeedsHold("connection", fuzz::connectionHolds, 14);
}

TEST(HangChannelFuzzTest, EverySeedHoldsAHangUnlessItIsNamedBad) {
    tests::expectSeedsHold("hang-channel", fuzz::hangChannelHolds, 10);
}

}  // namespace
}  // namespace quorvix
