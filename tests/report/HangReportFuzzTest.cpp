#include <gtest/gtest.h>

#include <filesystem>

#include "fuzz/HangReportEntry.h"
#include "tests/support/TemporaryFolder.h"

namespace quorvix {
namespace {

TEST(HangReportFuzzTest, EverySeedIsAHangReportUnlessItIsNamedBad) {
    const auto folder = std::filesystem::path(QUORVIX_SOURCE_FOLDER) / "fuzz/corpus/hang-report";
    int seeds = 0;
    for (const auto& seed : std::filesystem::directory_iterator(folder)) {
        const bool bad = seed.path().filename().string().starts_with("bad-");
        EXPECT_EQ(hangReportHolds(tests::readWholeFile(seed.path())), !bad) << seed.path();
        ++seeds;
    }
    EXPECT_GE(seeds, 8);
}

}  // namespace
}  // namespace quorvix
