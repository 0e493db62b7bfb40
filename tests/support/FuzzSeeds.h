#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "tests/support/TemporaryFolder.h"

namespace quorvix::tests {

// Feeds every seed of fuzz/corpus/NAME to a fuzz target's entry, which gives true for what was read: all but those
// whose name begins with "bad-". QUORVIX_SOURCE_FOLDER is where the tree is.
template <class Entry>
void expectSeedsHold(const std::string& corpus, Entry entry, int least) {
    const auto folder = std::filesystem::path(QUORVIX_SOURCE_FOLDER) / "fuzz/corpus" / corpus;
    int seeds = 0;
    for (const auto& seed : std::filesystem::directory_iterator(folder)) {
        const bool bad = seed.path().filename().string().starts_with("bad-");
        EXPECT_EQ(entry(readWholeFile(seed.path())), !bad) << seed.path();
        ++seeds;
    }
    EXPECT_GE(seeds, least);
}

}  // namespace quorvix::tests
