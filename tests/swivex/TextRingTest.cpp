#include "swivex/TextRing.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/TemporaryFolder.h"

using namespace quorvix::swivex;

namespace {

// A folder in the place of an instance, with one CPU.
class TextRingOfAFile : public testing::Test {
protected:
    TextRingOfAFile() { std::filesystem::create_directories(folder.path("instances/swivex/per_cpu/cpu0")); }

    // One event a microsecond, the first at second 1.
    static std::string lines(std::size_t count) {
        std::string text = "# tracer: nop\n";
        for (std::size_t index = 0; index < count; ++index) {
            text += "  app-100  [000] ..... 1." + std::to_string(1'000'000 + index).substr(1) +
                    ": tracing_mark_write: " + std::to_string(index) + "\n";
        }
        return text;
    }
    Outcome<RingHolding> load(const std::string& text, const Deadline& deadline = kInTime) {
        quorvix::tests::writeWholeFile(folder.path("instances/swivex/per_cpu/cpu0/trace"), text);
        ring = std::move(*TextRing::open({folder.path(), "swivex"}));
        return ring->load(0, 0, deadline);
    }
    std::vector<std::string> texts(std::uint64_t from, std::uint64_t to) {
        std::vector<std::string> found;
        EXPECT_TRUE(ring->visit(from, to, kInTime, [&](const Event& event) { found.emplace_back(event.text); }));
        return found;
    }

    inline static const Deadline kInTime = Deadline::in(std::chrono::hours(1));
    static constexpr std::uint64_t kSecond = 1'000'000'000;
    quorvix::tests::TemporaryFolder folder;
    std::unique_ptr<Ring> ring;
};

}  // namespace

TEST_F(TextRingOfAFile, HoldsAsManyEventsAsTheLimitAndOfMoreTheNewest) {
    auto holding = load(lines(TextRing::kMostEvents));
    ASSERT_TRUE(holding);
    EXPECT_FALSE(holding->leftOut);
    EXPECT_EQ(holding->oldestNs, kSecond);

    holding = load(lines(TextRing::kMostEvents + 1));
    ASSERT_TRUE(holding);
    EXPECT_TRUE(holding->leftOut);
    EXPECT_EQ(holding->oldestNs, kSecond + 1000);
    EXPECT_EQ(texts(0, kSecond + 2000), (std::vector<std::string>{"1", "2"}));
}

TEST_F(TextRingOfAFile, TakesTheEventsOfTheSpanAndPassesOverWhatIsNone) {
    const std::string text =
        "CPU:0 [LOST 5 EVENTS]\n##### CPU 0 buffer started ####\n" + std::string(40'000, 'x') + "\n" + lines(5);
    const auto holding = load(text);
    ASSERT_TRUE(holding);
    EXPECT_EQ(holding->oldestNs, kSecond);
    EXPECT_EQ(texts(kSecond + 1000, kSecond + 3000), (std::vector<std::string>{"1", "2", "3"}));
    std::vector<std::string> earlier;
    ring->visitEarlier(
        kSecond + 2000, kInTime, [&](const Event& event) { earlier.emplace_back(event.text); }, [] { return false; });
    EXPECT_EQ(earlier, (std::vector<std::string>{"1", "0"}));
}

TEST_F(TextRingOfAFile, SaysThatItWasCutShort) {
    const auto holding = load(lines(5), Deadline::in(std::chrono::seconds(0)));
    ASSERT_TRUE(holding);
    EXPECT_TRUE(holding->cutShort);
}

TEST_F(TextRingOfAFile, WithoutAFileIsAProblem) {
    ring = std::move(*TextRing::open({folder.path(), "swivex"}));
    EXPECT_FALSE(ring->load(0, 0, kInTime));
}
