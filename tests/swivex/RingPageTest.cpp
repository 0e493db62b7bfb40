#include "swivex/RingPage.h"

#include <gtest/gtest.h>

#include "tests/swivex/RecordedRing.h"

using namespace quorvix::swivex;
using namespace quorvix::swivex::tests;

namespace {

// A page made by hand, word by word.
struct HandMade {
    std::vector<std::uint32_t> words;

    HandMade& head(std::uint32_t kind, std::uint32_t delta) { return word(kind | delta << 5); }
    HandMade& word(std::uint32_t value) {
        words.push_back(value);
        return *this;
    }
    std::span<const std::uint8_t> bytes() const {
        return {reinterpret_cast<const std::uint8_t*>(words.data()), words.size() * 4};
    }
};

std::vector<std::uint64_t> timesOf(RingPage page) {
    std::vector<std::uint64_t> times;
    while (const auto record = page.next()) times.push_back(record->timeNs);
    return times;
}

using Times = std::vector<std::uint64_t>;

}  // namespace

TEST(RingPage, AddsUpTheTimesBetweenRecords) {
    HandMade page;
    page.head(1, 0).word(7).head(2, 10).word(8).word(9).head(1, 5).word(1);
    EXPECT_EQ(timesOf({1000, page.bytes()}), (Times{1000, 1010, 1015}));
}

TEST(RingPage, GivesARecordsBytes) {
    HandMade page;
    page.head(2, 0).word(0x11111111).word(0x22222222);
    RingPage reader(0, page.bytes());
    const auto record = reader.next();
    ASSERT_TRUE(record);
    EXPECT_EQ(record->data.size(), 8U);
    EXPECT_EQ(record->data[4], 0x22);
}

TEST(RingPage, LongRecordHasItsLengthInAWordThatCountsItself) {
    HandMade page;
    page.head(0, 3).word(4 + 6).word(0x11111111).word(0x22222222).head(1, 1).word(0);
    RingPage reader(100, page.bytes());
    EXPECT_EQ(reader.next()->data.size(), 6U);
    EXPECT_EQ(reader.next()->timeNs, 104U);
    EXPECT_FALSE(reader.next());
    EXPECT_FALSE(reader.damaged());
}

TEST(RingPage, ExtendedTimeIsAddedWithItsUpperBits) {
    HandMade page;
    page.head(30, 1).word(2).head(1, 4).word(0);
    EXPECT_EQ(timesOf({50, page.bytes()}), Times{50 + 1 + (std::uint64_t{2} << 27) + 4});
}

TEST(RingPage, AbsoluteTimeReplacesAllButTheUppermostBits) {
    HandMade page;
    page.head(31, 5).word(6).head(1, 0).word(0);
    const std::uint64_t low = 5 + (std::uint64_t{6} << 27);
    EXPECT_EQ(timesOf({0, page.bytes()}), Times{low});
    const std::uint64_t upper = std::uint64_t{1} << 60;
    EXPECT_EQ(timesOf({upper + low - 1, page.bytes()}), Times{upper + low});
    // It never goes back: the lower bits began again.
    EXPECT_EQ(timesOf({upper + low + 1, page.bytes()}), Times{upper + (std::uint64_t{1} << 59) + low});
}

TEST(RingPage, GapWithoutTimeEndsThePage) {
    HandMade page;
    page.head(1, 0).word(7).head(29, 0).word(999).word(999);
    RingPage reader(1, page.bytes());
    EXPECT_TRUE(reader.next());
    EXPECT_FALSE(reader.next());
    EXPECT_FALSE(reader.damaged());
}

TEST(RingPage, RecordTakenBackIsPassedOverAndItsTimeKept) {
    HandMade page;
    page.head(29, 20).word(8).word(0xdead).head(1, 3).word(7);
    EXPECT_EQ(timesOf({100, page.bytes()}), Times{123});
    HandMade without;
    without.head(29, 1).word(8).word(0xdead).head(1, 3).word(7);
    EXPECT_EQ(timesOf({100, without.bytes()}), Times{103});
}

TEST(RingPage, RecordLongerThanThePageIsDamage) {
    for (const std::uint32_t length : {0U, 3U, 13U, 100U, 0xffffffffU}) {
        HandMade page;
        page.head(0, 0).word(length).word(1).word(2);
        RingPage reader(0, page.bytes());
        EXPECT_FALSE(reader.next()) << length;
        EXPECT_TRUE(reader.damaged()) << length;
    }
    HandMade cut;
    cut.head(30, 1);
    RingPage reader(0, cut.bytes());
    EXPECT_FALSE(reader.next());
    EXPECT_TRUE(reader.damaged());
}

TEST(RingPage, EveryCutOfARecordedPageEndsWithoutARecordPastIt) {
    const auto pages = recordedPages();
    for (std::size_t size = 0; size < pages[0].data().size(); ++size) {
        const auto cut = pages[0].data().first(size);
        RingPage reader(pages[0].timeNs, cut);
        while (const auto record = reader.next()) {
            ASSERT_LE(record->data.data() + record->data.size(), cut.data() + cut.size());
        }
    }
}
