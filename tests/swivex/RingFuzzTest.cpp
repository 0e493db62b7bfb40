#include <gtest/gtest.h>

#include <filesystem>

#include "fuzz/RingPageEntry.h"
#include "fuzz/RingTextEntry.h"
#include "tests/support/TemporaryFolder.h"

namespace {

void expectSeedsHold(const std::string& corpus, bool (*entry)(std::string_view), int least) {
    const auto folder = std::filesystem::path(QUORVIX_SOURCE_FOLDER "/fuzz/corpus") / corpus;
    int seeds = 0;
    for (const auto& seed : std::filesystem::directory_iterator(folder)) {
        const bool bad = seed.path().filename().string().starts_with("bad-");
        EXPECT_EQ(entry(quorvix::tests::readWholeFile(seed.path())), !bad) << seed.path();
        ++seeds;
    }
    EXPECT_GE(seeds, least);
}

}  // namespace

TEST(RingFuzz, EverySeedOfAPageIsReadUnlessItIsNamedBad) { expectSeedsHold("ring-page", ringPageHolds, 6); }

TEST(RingFuzz, EverySeedOfALineIsReadUnlessItIsNamedBad) { expectSeedsHold("ring-text", ringTextHolds, 8); }
