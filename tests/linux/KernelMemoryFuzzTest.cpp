#include <gtest/gtest.h>

#include "fuzz/SlabInfoEntry.h"
#include "fuzz/VmallocInfoEntry.h"
#include "tests/support/FuzzSeeds.h"

namespace quorvix {
namespace {

using tests::expectSeedsHold;

TEST(KernelMemoryFuzzTest, EverySeedOfTheSlabListIsReadUnlessItIsNamedBad) {
    expectSeedsHold("slab-info", slabInfoHolds, 5);
}

TEST(KernelMemoryFuzzTest, EverySeedOfTheAreaListIsReadUnlessItIsNamedBad) {
    expectSeedsHold("vmalloc-info", vmallocInfoHolds, 3);
}

}  // namespace
}  // namespace quorvix
