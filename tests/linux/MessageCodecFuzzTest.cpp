#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "fuzz/MessageCodecEntry.h"
#include "tests/support/TemporaryFolder.h"

namespace quorvix {
namespace {

bool decodes(const std::string& bytes) {
    return fuzz::messageCodecRulesHold(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
}

TEST(MessageCodecFuzzTest, EverySeedKeepsTheRulesAndDecodesUnlessItIsNamedBad) {
    const auto folder = std::filesystem::path(QUORVIX_SOURCE_FOLDER) / "fuzz/corpus/message-codec";
    int seeds = 0;
    for (const auto& seed : std::filesystem::directory_iterator(folder)) {
        const bool bad = seed.path().filename().string().starts_with("bad-");
        EXPECT_EQ(decodes(tests::readWholeFile(seed.path())), !bad) << seed.path();
        ++seeds;
    }
    EXPECT_GE(seeds, 28);
}

// What the fuzzer would find first if the entry fed the wrong bytes: a valid message, and the same with one bit less.
TEST(MessageCodecFuzzTest, TheEntryFeedsTheDatagramAfterTheDescriptorCount) {
    const std::string datagram("VEX1\x01\0\0\0\x05\x01k\0", 12);
    EXPECT_TRUE(decodes("\x01" + datagram));
    EXPECT_TRUE(decodes("\x06" + datagram)) << "counts wrap at five";
    EXPECT_FALSE(decodes(std::string(1, '\0') + datagram));
    EXPECT_FALSE(decodes("\x02" + datagram));
    EXPECT_FALSE(decodes(""));
}

}  // namespace
}  // namespace quorvix
