#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "fuzz/SlabInfoEntry.h"
#include "fuzz/VmallocInfoEntry.h"
#include "tests/support/TemporaryFolder.h"

namespace quorvix {
namespace {

void expectSeedsHold(const std::string& corpus, bool (*entry)(std::string_view), int least) {
    const auto folder = std::filesystem::path(QUORVIX_SOURCE_FOLDER) / "fuzz/corpus" / corpus;
    int seeds = 0;
    for (const auto& seed : std::filesystem::directory_iterator(folder)) {
        const bool bad = seed.path().filename().string().starts_with("bad-");
        EXPECT_EQ(entry(tests::readWholeFile(seed.path())), !bad) << seed.path();
        ++seeds;
    }
    EXPECT_GE(seeds, least);
}

TEST(KernelMemoryFuzzTest, EverySeedOfTheSlabListIsReadUnlessItIsNamedBad) {
    expectSeedsHold("slab-info", slabInfoHolds, 5);
}

TEST(KernelMemoryFuzzTest, EverySeedOfTheAreaListIsReadUnlessItIsNamedBad) {
    expectSeedsHold("vmalloc-info", vmallocInfoHolds, 3);
}

}  // namespace
}  // namespace quorvix
