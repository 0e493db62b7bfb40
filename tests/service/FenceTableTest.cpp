#include "service/FenceTable.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace quorvix {

// Printed by a failing comparison of slots, too.
static bool operator==(const FenceTable::Slot& left, const FenceTable::Slot& right) {
    return left.name == right.name && left.startTime == right.startTime && left.endTime == right.endTime;
}

namespace {

using ::testing::ElementsAre;
using Slot = FenceTable::Slot;

constexpr std::int64_t kOpen = FenceTable::kOpenEnd;
constexpr std::uint64_t kLatest = std::numeric_limits<std::uint64_t>::max();

TEST(FenceTable, StartsEmpty) {
    EXPECT_THAT(FenceTable().slots(), ElementsAre(Slot{}, Slot{}, Slot{}, Slot{}, Slot{}));
    EXPECT_EQ(FenceTable().overlapMs(0, kLatest, 1.0), 0u);
}

TEST(FenceTable, AFenceIsOpenUntilItsEnd) {
    FenceTable table;
    table.begin(7, 100);
    EXPECT_EQ(table.slots()[0], (Slot{7, 100, 0x7FFFFFFFFFFFFFFF}));
    EXPECT_TRUE(table.end(7, 300));
    EXPECT_EQ(table.slots()[0], (Slot{7, 100, 300}));
}

TEST(FenceTable, TheSixthFenceTakesTheFirstOnesSlot) {
    FenceTable table;
    for (std::int64_t name = 1; name <= 6; ++name) table.begin(name, name * 10);
    EXPECT_THAT(table.slots(), ElementsAre(Slot{6, 60, kOpen}, Slot{2, 20, kOpen}, Slot{3, 30, kOpen},
                                           Slot{4, 40, kOpen}, Slot{5, 50, kOpen}));
    EXPECT_FALSE(table.end(1, 99));
}

TEST(FenceTable, GoesRoundManyTimes) {
    FenceTable table;
    for (std::int64_t name = 1; name <= 5003; ++name) table.begin(name, name);
    EXPECT_THAT(table.slots(), ElementsAre(Slot{5001, 5001, kOpen}, Slot{5002, 5002, kOpen}, Slot{5003, 5003, kOpen},
                                           Slot{4999, 4999, kOpen}, Slot{5000, 5000, kOpen}));
}

TEST(FenceTable, AnEndedFenceStaysUntilItIsOverwritten) {
    FenceTable table;
    table.begin(1, 100);
    EXPECT_TRUE(table.end(1, 200));
    for (std::int64_t name = 2; name <= 5; ++name) table.begin(name, 1000);
    EXPECT_EQ(table.overlapMs(0, 1000, 1.0), 100u);
    table.begin(6, 1000);
    EXPECT_EQ(table.overlapMs(0, 1000, 1.0), 0u);
}

TEST(FenceTable, AnEndIsTheNewestFencesBeforeAnyOther) {
    FenceTable table;
    for (std::int64_t name : {1, 7, 7, 7, 2, 7}) table.begin(name, 100);
    // The newest, in slot 0, although slot 3 is the last of that name.
    EXPECT_TRUE(table.end(7, 500));
    EXPECT_EQ(table.slots()[0].endTime, 500);
    EXPECT_EQ(table.slots()[3].endTime, kOpen);
}

TEST(FenceTable, AnEndOfAnOlderFenceIsTheLastSlotsOfThatName) {
    FenceTable table;
    for (std::int64_t name : {7, 1, 7, 2}) table.begin(name, 100);
    EXPECT_TRUE(table.end(7, 500));
    EXPECT_EQ(table.slots()[0].endTime, kOpen);
    EXPECT_EQ(table.slots()[2].endTime, 500);
}

TEST(FenceTable, TheLastSlotOfANameNeedNotHoldItsNewestFence) {
    FenceTable table;
    for (std::int64_t name : {1, 2, 3, 4, 7, 7, 9}) table.begin(name, 100);
    EXPECT_TRUE(table.end(7, 500));
    EXPECT_EQ(table.slots()[0].endTime, kOpen) << "the newer one";
    EXPECT_EQ(table.slots()[4].endTime, 500);
}

TEST(FenceTable, AFenceCanEndAgain) {
    FenceTable table;
    table.begin(7, 100);
    EXPECT_TRUE(table.end(7, 300));
    EXPECT_TRUE(table.end(7, 250));
    EXPECT_EQ(table.slots()[0].endTime, 250);
}

TEST(FenceTable, AnUnknownNameEndsNothing) {
    FenceTable table;
    table.begin(7, 100);
    EXPECT_FALSE(table.end(8, 300));
    EXPECT_EQ(table.slots()[0].endTime, kOpen);
}

TEST(FenceTable, NameZeroEndsASlotThatWasNeverFilled) {
    FenceTable table;
    EXPECT_TRUE(table.end(0, 300));
    EXPECT_EQ(table.slots()[0], (Slot{0, 0, 300}));
    EXPECT_EQ(table.overlapMs(100, 900, 1.0), 200u);
    table.begin(7, 100);
    EXPECT_TRUE(table.end(0, 400));
    EXPECT_EQ(table.slots()[4], (Slot{0, 0, 400}));
}

TEST(FenceTable, TakesAnyNumberAsAName) {
    FenceTable table;
    table.begin(std::numeric_limits<std::int64_t>::min(), 100);
    table.begin(-1, 100);
    EXPECT_TRUE(table.end(std::numeric_limits<std::int64_t>::min(), 300));
    EXPECT_EQ(table.slots()[0].endTime, 300);
}

TEST(FenceOverlap, IsWhatAFenceAndTheHangShare) {
    FenceTable table;
    table.begin(7, 1000);
    EXPECT_TRUE(table.end(7, 2000));
    EXPECT_EQ(table.overlapMs(1200, 1700, 1.0), 500u) << "hang inside the fence";
    EXPECT_EQ(table.overlapMs(0, 9000, 1.0), 1000u) << "fence inside the hang";
    EXPECT_EQ(table.overlapMs(500, 1100, 1.0), 100u);
    EXPECT_EQ(table.overlapMs(1900, 2500, 1.0), 100u);
    EXPECT_EQ(table.overlapMs(1000, 2000, 1.0), 1000u);
}

TEST(FenceOverlap, IsNothingWhereTheyOnlyTouch) {
    FenceTable table;
    table.begin(7, 1000);
    EXPECT_TRUE(table.end(7, 2000));
    EXPECT_EQ(table.overlapMs(0, 1000, 1.0), 0u);
    EXPECT_EQ(table.overlapMs(2000, 3000, 1.0), 0u);
    EXPECT_EQ(table.overlapMs(0, 1001, 1.0), 1u);
    EXPECT_EQ(table.overlapMs(1999, 3000, 1.0), 1u);
}

TEST(FenceOverlap, OfAnOpenFenceLastsToTheHangsEnd) {
    FenceTable table;
    table.begin(7, 1000);
    EXPECT_EQ(table.overlapMs(500, 4000, 1.0), 3000u);
}

TEST(FenceOverlap, AddsFencesThatOverlapEachOther) {
    FenceTable table;
    table.begin(7, 1000);
    table.begin(8, 1000);
    EXPECT_EQ(table.overlapMs(0, 1250, 1.0), 500u);
}

TEST(FenceOverlap, IsCutToWholeMillisecondsSlotBySlot) {
    FenceTable table;
    for (std::int64_t name = 1; name <= 5; ++name) table.begin(name, 1000);
    // Half a millisecond a tick: 0.5 ms of each slot is cut before the next is added.
    EXPECT_EQ(table.overlapMs(0, 1001, 0.5), 0u);
    EXPECT_EQ(table.overlapMs(0, 1003, 0.5), 5u);
    EXPECT_EQ(table.overlapMs(0, 1002, 0.5), 5u);
}

TEST(FenceOverlap, IsNothingForAFenceThatEndsBeforeItBegins) {
    FenceTable table;
    table.begin(7, 2000);
    EXPECT_TRUE(table.end(7, 1000));
    EXPECT_EQ(table.overlapMs(0, 9000, 1.0), 0u);
}

TEST(FenceOverlap, TakesNegativeTimesAsLateOnes) {
    FenceTable table;
    table.begin(7, -1000);
    EXPECT_EQ(table.overlapMs(0, kLatest, 1.0), 0u) << "begins after the end of an open fence";
    EXPECT_TRUE(table.end(7, -500));
    EXPECT_EQ(table.overlapMs(0, kLatest, 1.0), 500u);
}

TEST(FenceOverlap, SaturatesAtTheLargestTotal) {
    FenceTable table;
    table.begin(7, 0);
    EXPECT_TRUE(table.end(7, -1));
    EXPECT_EQ(table.overlapMs(0, kLatest, 1.0), kLatest);
    EXPECT_EQ(table.overlapMs(0, kLatest, 1e9), kLatest);
    table.begin(8, 0);
    EXPECT_TRUE(table.end(8, -1));
    EXPECT_EQ(table.overlapMs(0, kLatest, 1.0), kLatest) << "and does not wrap with the next slot";
}

}  // namespace
}  // namespace quorvix
