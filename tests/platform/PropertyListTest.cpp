#include "platform/PropertyList.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>

namespace quorvix {
namespace {

constexpr std::int64_t kInt32Max = std::numeric_limits<std::int32_t>::max();
constexpr std::int64_t kInt32Min = std::numeric_limits<std::int32_t>::min();
constexpr std::int64_t kUint32Max = std::numeric_limits<std::uint32_t>::max();
constexpr double kInfinity = std::numeric_limits<double>::infinity();
const double kNotANumber = std::numeric_limits<double>::quiet_NaN();

std::optional<std::int32_t> int32Of(PropertyListValue value) { return value.int32(); }
std::optional<std::uint32_t> uint32Of(PropertyListValue value) { return value.uint32(); }

TEST(PropertyListValue, OnlyBooleansIntegersAndRealsAreNumbers) {
    for (const PropertyListValue& number : {PropertyListValue(false), PropertyListValue(0), PropertyListValue(0.0)}) {
        EXPECT_TRUE(number.isNumber());
        EXPECT_TRUE(number.boolean() && number.int32() && number.uint32() && number.real() && number.single());
    }
    for (const PropertyListValue& other :
         {PropertyListValue("1"), PropertyListValue(PropertyListDate{1}), PropertyListValue(PropertyListData{{1}}),
          PropertyListValue(PropertyListArray{1}), PropertyListValue(PropertyListDictionary{{"1", 1}})}) {
        EXPECT_FALSE(other.isNumber());
        EXPECT_FALSE(other.boolean() || other.int32() || other.uint32() || other.real() || other.single());
    }
}

TEST(PropertyListValue, BooleanCountsAsOneOrZero) {
    const PropertyListValue yes(true);
    EXPECT_EQ(yes.boolean(), true);
    EXPECT_EQ(yes.int32(), 1);
    EXPECT_EQ(yes.uint32(), 1u);
    EXPECT_EQ(yes.real(), 1.0);
    EXPECT_EQ(yes.single(), 1.0f);
    const PropertyListValue no(false);
    EXPECT_EQ(no.boolean(), false);
    EXPECT_EQ(no.int32(), 0);
    EXPECT_EQ(no.real(), 0.0);
}

TEST(PropertyListValue, NumberIsTrueWhenItIsNotZero) {
    EXPECT_EQ(PropertyListValue(0).boolean(), false);
    EXPECT_EQ(PropertyListValue(2).boolean(), true);
    EXPECT_EQ(PropertyListValue(-1).boolean(), true);
    EXPECT_EQ(PropertyListValue(std::int64_t{1} << 32).boolean(), true);
    EXPECT_EQ(PropertyListValue(0.0).boolean(), false);
    EXPECT_EQ(PropertyListValue(-0.0).boolean(), false);
    EXPECT_EQ(PropertyListValue(0.1).boolean(), true);
    EXPECT_EQ(PropertyListValue(std::numeric_limits<double>::denorm_min()).boolean(), true);
    EXPECT_EQ(PropertyListValue(kInfinity).boolean(), true);
    EXPECT_EQ(PropertyListValue(kNotANumber).boolean(), false);
}

TEST(PropertyListValue, IntegerGivesItsLow32Bits) {
    EXPECT_EQ(int32Of(kInt32Max), kInt32Max);
    EXPECT_EQ(int32Of(kInt32Max + 1), kInt32Min);
    EXPECT_EQ(int32Of(kInt32Min), kInt32Min);
    EXPECT_EQ(int32Of(kInt32Min - 1), kInt32Max);
    EXPECT_EQ(int32Of((std::int64_t{1} << 32) + 5), 5);
    EXPECT_EQ(int32Of(std::numeric_limits<std::int64_t>::max()), -1);
    EXPECT_EQ(int32Of(std::numeric_limits<std::int64_t>::min()), 0);

    EXPECT_EQ(uint32Of(-1), kUint32Max);
    EXPECT_EQ(uint32Of(kUint32Max), kUint32Max);
    EXPECT_EQ(uint32Of(kUint32Max + 1), 0u);
    EXPECT_EQ(uint32Of(kInt32Min), 0x80000000u);
    EXPECT_EQ(uint32Of((std::int64_t{1} << 40) + 7), 7u);
}

TEST(PropertyListValue, RealSaturatesAtTheBoundsOf32Bits) {
    EXPECT_EQ(int32Of(2147483646.9), 2147483646);
    EXPECT_EQ(int32Of(2147483647.0), 2147483647);
    EXPECT_EQ(int32Of(2147483648.0), 2147483647);
    EXPECT_EQ(int32Of(-2147483647.9), -2147483647);
    EXPECT_EQ(int32Of(-2147483648.0), -2147483647 - 1);
    EXPECT_EQ(int32Of(-2147483649.0), -2147483647 - 1);
    EXPECT_EQ(int32Of(kInfinity), 2147483647);
    EXPECT_EQ(int32Of(-kInfinity), -2147483647 - 1);

    EXPECT_EQ(uint32Of(4294967294.9), 4294967294u);
    EXPECT_EQ(uint32Of(4294967295.0), 4294967295u);
    EXPECT_EQ(uint32Of(4294967296.0), 4294967295u);
    EXPECT_EQ(uint32Of(-0.5), 0u);
    EXPECT_EQ(uint32Of(-1.0), 0u);
    EXPECT_EQ(uint32Of(kInfinity), 4294967295u);
    EXPECT_EQ(uint32Of(-kInfinity), 0u);
}

TEST(PropertyListValue, RealLosesItsFractionTowardsZero) {
    EXPECT_EQ(int32Of(2.9), 2);
    EXPECT_EQ(int32Of(-2.9), -2);
    EXPECT_EQ(uint32Of(0.9), 0u);
}

TEST(PropertyListValue, NotANumberIsZero) {
    EXPECT_EQ(int32Of(kNotANumber), 0);
    EXPECT_EQ(uint32Of(kNotANumber), 0u);
    EXPECT_TRUE(std::isnan(PropertyListValue(kNotANumber).real().value()));
}

TEST(PropertyListValue, IntegerAsRealIsTheNearest) {
    EXPECT_EQ(PropertyListValue(-3).real(), -3.0);
    EXPECT_EQ(PropertyListValue((std::int64_t{1} << 53) + 1).real(), 9007199254740992.0);
    EXPECT_EQ(PropertyListValue((std::int64_t{1} << 24) + 1).single(), 16777216.0f);
    // Rounded once, from the integer: through a double it would be 2^24 steps lower.
    EXPECT_EQ(PropertyListValue((std::int64_t{1} << 60) + (std::int64_t{1} << 36) + 1).single(),
              static_cast<float>((std::int64_t{1} << 60) + (std::int64_t{1} << 37)));
}

TEST(PropertyListValue, RealAsSingleIsTheNearest) {
    EXPECT_EQ(PropertyListValue(0.1).single(), 0.1f);
    EXPECT_EQ(PropertyListValue(1e300).single(), std::numeric_limits<float>::infinity());
    EXPECT_EQ(PropertyListValue(1e-300).single(), 0.0f);
}

TEST(Saturated, SixtyFourBitBounds) {
    constexpr auto kMax = std::numeric_limits<std::uint64_t>::max();
    EXPECT_EQ(saturated<std::uint64_t>(18446744073709549568.0), 18446744073709549568u);
    EXPECT_EQ(saturated<std::uint64_t>(18446744073709551616.0), kMax);
    EXPECT_EQ(saturated<std::uint64_t>(kInfinity), kMax);
    EXPECT_EQ(saturated<std::uint64_t>(-1.0), 0u);
    EXPECT_EQ(saturated<std::uint64_t>(kNotANumber), 0u);
    EXPECT_EQ(saturated<std::int64_t>(9223372036854774784.0), 9223372036854774784);
    EXPECT_EQ(saturated<std::int64_t>(9223372036854775808.0), std::numeric_limits<std::int64_t>::max());
    EXPECT_EQ(saturated<std::int64_t>(-9223372036854775808.0), std::numeric_limits<std::int64_t>::min());
    EXPECT_EQ(saturated<std::int64_t>(-1e300), std::numeric_limits<std::int64_t>::min());
}

TEST(PropertyListValue, KindsAreNeverEqual) {
    EXPECT_NE(PropertyListValue(true), PropertyListValue(1));
    EXPECT_NE(PropertyListValue(1), PropertyListValue(1.0));
    EXPECT_NE(PropertyListValue("1"), PropertyListValue(1));
    EXPECT_EQ(PropertyListValue(PropertyListArray{1, "a"}), PropertyListValue(PropertyListArray{1, "a"}));
}

}  // namespace
}  // namespace quorvix
