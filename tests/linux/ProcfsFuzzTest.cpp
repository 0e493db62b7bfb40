#include <gtest/gtest.h>

#include "fuzz/OsReleaseEntry.h"
#include "fuzz/ProcfsEntry.h"
#include "tests/support/FuzzSeeds.h"

namespace quorvix {
namespace {

TEST(ProcfsFuzzTest, EverySeedIsReadUnlessItIsNamedBad) { tests::expectSeedsHold("procfs", fuzz::procfsHolds, 23); }

TEST(ProcfsFuzzTest, EverySeedOfOsReleaseNamesSomethingUnlessItIsNamedBad) {
    tests::expectSeedsHold("os-release", osReleaseHolds, 5);
}

// What the fuzzer would find first if the entry fed the wrong bytes.
TEST(ProcfsFuzzTest, TheFirstByteNamesTheReaderAndTheRestIsItsText) {
    EXPECT_TRUE(fuzz::procfsHolds("c123\n"));
    EXPECT_FALSE(fuzz::procfsHolds("m123\n"));
    EXPECT_FALSE(fuzz::procfsHolds("c"));
    EXPECT_FALSE(fuzz::procfsHolds(""));
}

}  // namespace
}  // namespace quorvix
