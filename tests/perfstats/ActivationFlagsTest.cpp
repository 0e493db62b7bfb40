#include "perfstats/StatisticsDelta.h"
#include "tests/activation/ActivationWorld.h"

namespace quorvix::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class Flags : public ActivationWorld {
protected:
    static std::uint64_t inserted(std::uint64_t value, std::int32_t index, std::uint64_t flags = 0) {
        insertActivationFlag(value, index, flags);
        return flags;
    }
};

struct Field {
    std::int32_t index;
    unsigned position;
    std::uint64_t maximum;
};
class FlagField : public Flags, public ::testing::WithParamInterface<Field> {};

TEST_P(FlagField, HoldsAClampedValueAtItsPosition) {
    const auto [index, position, maximum] = GetParam();
    EXPECT_EQ(inserted(0, index), 0u);
    EXPECT_EQ(inserted(1, index), std::uint64_t{1} << position);
    EXPECT_EQ(inserted(maximum - 1, index), (maximum - 1) << position);
    EXPECT_EQ(inserted(maximum, index), maximum << position);
    EXPECT_EQ(inserted(maximum + 1, index), maximum << position);
    EXPECT_EQ(inserted(~std::uint64_t{0}, index), maximum << position);
}

INSTANTIATE_TEST_SUITE_P(Each, FlagField,
                         ::testing::Values(Field{0, 18, 1}, Field{1, 19, 1}, Field{2, 20, 3}, Field{3, 8, 31},
                                           Field{4, 13, 31}, Field{5, 0, 255}));

TEST_F(Flags, TellWhatWasInserted) {
    EXPECT_EQ(inserted(40, 3), 0x1F00u);
    EXPECT_THAT(lines(),
                ElementsAre("debug: QXActivationStats: Value to insert:1f Output Value:1f00 MaxValue:1f Index:8"));
}

TEST_F(Flags, KeepWhatWasThere) {
    EXPECT_EQ(inserted(300, 5, 0xABCD'0000'0000'1200), 0xABCD'0000'0000'12FFu);
    EXPECT_EQ(inserted(5, 4, 0xA << 13), 0xFu << 13);
}

TEST_F(Flags, OtherIndexesAreNoFields) {
    for (const std::int32_t index : {6, -1, 32, 2'147'483'647, -2'147'483'647 - 1}) {
        EXPECT_EQ(inserted(1, index, 42), 42u);
    }
    EXPECT_THAT(lines(), IsEmpty());
}

}  // namespace
}  // namespace quorvix::test
