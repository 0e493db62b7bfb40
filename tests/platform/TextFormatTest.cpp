#include "platform/TextFormat.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>

namespace quorvix {
namespace {

// A format that does not fit its arguments does not compile; what the compiler would say is asked here.
static_assert(formatFits<>("plain"));
static_assert(formatFits<>("100%%"));
static_assert(!formatFits<>("100%"));
static_assert(!formatFits<>("%d"));
static_assert(!formatFits<std::int32_t>("plain"));
static_assert(formatFits<std::int32_t>("%d %%"));
static_assert(formatFits<std::int32_t>("%i"));
static_assert(formatFits<bool>("%d"));
static_assert(!formatFits<std::uint32_t>("%d"));
static_assert(!formatFits<std::int64_t>("%d"));
static_assert(formatFits<std::uint32_t>("%u"));
static_assert(!formatFits<std::int32_t>("%u"));
static_assert(!formatFits<std::uint64_t>("%u"));
static_assert(formatFits<std::int64_t>("%lld"));
static_assert(!formatFits<std::int32_t>("%lld"));
static_assert(!formatFits<std::int64_t>("%ld"));
static_assert(formatFits<std::uint64_t>("%llu"));
static_assert(!formatFits<std::int64_t>("%llu"));
static_assert(formatFits<std::size_t>("%zu"));
static_assert(!formatFits<std::uint32_t>("%zu"));
static_assert(formatFits<double>("%f"));
static_assert(formatFits<double>("%.2f"));
static_assert(!formatFits<float>("%f"));
static_assert(!formatFits<std::int32_t>("%.2d"));
static_assert(formatFits<ObjectId>("%p"));
static_assert(!formatFits<const void*>("%p"));
static_assert(formatFits<const char*>("%s"));
static_assert(formatFits<std::string>("%.5s"));
static_assert(formatFits<std::optional<std::string>>("%s"));
static_assert(!formatFits<std::int32_t>("%s"));
static_assert(!formatFits<JsonObject>("%s"));
static_assert(formatFits<std::string_view>("%@"));
static_assert(formatFits<std::optional<std::string_view>>("%@"));
static_assert(formatFits<ErrorCode>("%@"));
static_assert(formatFits<WallTime>("%@"));
static_assert(formatFits<std::optional<WallTime>>("%@"));
static_assert(formatFits<JsonObject>("%@"));
static_assert(!formatFits<std::int32_t>("%@"));
static_assert(!formatFits<double>("%@"));
static_assert(!formatFits<bool>("%@"));
static_assert(!formatFits<std::string>("%.5@"));
static_assert(formatFits<std::string, std::int32_t>("%@ %d"));
static_assert(!formatFits<std::string, std::int32_t>("%d %@"));
static_assert(!formatFits<std::string, std::int32_t>("%@"));
static_assert(!formatFits<std::string>("%@ %@"));
static_assert(!formatFits<std::int32_t>("%x"));

TEST(TextFormat, LiteralTextAndPercentSigns) {
    EXPECT_EQ(formatText(""), "");
    EXPECT_EQ(formatText("plain"), "plain");
    EXPECT_EQ(formatText("%%"), "%");
    EXPECT_EQ(formatText("%%d %d%% %%", 5), "%d 5% %");
}

TEST(TextFormat, IntegersAtTheirBounds) {
    EXPECT_EQ(formatText("%d", std::numeric_limits<std::int32_t>::min()), "-2147483648");
    EXPECT_EQ(formatText("%i", std::numeric_limits<std::int32_t>::max()), "2147483647");
    EXPECT_EQ(formatText("%u", std::numeric_limits<std::uint32_t>::max()), "4294967295");
    EXPECT_EQ(formatText("%lld", std::numeric_limits<std::int64_t>::min()), "-9223372036854775808");
    EXPECT_EQ(formatText("%llu", std::numeric_limits<std::uint64_t>::max()), "18446744073709551615");
    EXPECT_EQ(formatText("%zu", std::size_t{0}), "0");
    EXPECT_EQ(formatText("%d%d", true, false), "10");
}

TEST(TextFormat, RealsWithAndWithoutPrecision) {
    EXPECT_EQ(formatText("%f", 50.0), "50.000000");
    EXPECT_EQ(formatText("%.0f|%.1f|%.3f", 2.5, 0.25, -1.0), "2|0.2|-1.000");
    EXPECT_EQ(formatText("%f", std::numeric_limits<double>::max()).size(), 316u);
    EXPECT_EQ(formatText("%f", std::numeric_limits<double>::infinity()), "inf");
}

TEST(TextFormat, PointersAreStableNumbers) {
    EXPECT_EQ(formatText("%p", ObjectId{0}), "0x0");
    EXPECT_EQ(formatText("%p", ObjectId{0xFFFFFFFFFFFFFFFF}), "0xffffffffffffffff");
}

TEST(TextFormat, TextOfEveryKind) {
    EXPECT_EQ(formatText("%s %@ %s", "literal", std::string("string"), std::string_view("view")),
              "literal string view");
    EXPECT_EQ(formatText("%@", std::string("50% %d")), "50% %d");
    EXPECT_EQ(formatText("<%@>", std::string("a\0b", 3)), std::string("<a\0b>", 5));
}

TEST(TextFormat, NothingIsNull) {
    EXPECT_EQ(formatText("%@", std::optional<std::string>()), "(null)");
    EXPECT_EQ(formatText("%s", std::optional<std::string_view>()), "(null)");
    EXPECT_EQ(formatText("%@", std::optional<WallTime>()), "(null)");
    EXPECT_EQ(formatText("%s", static_cast<const char*>(nullptr)), "(null)");
    EXPECT_EQ(formatText("%@", std::optional<std::string>("")), "");
}

TEST(TextFormat, PrecisionCutsTextAtBytes) {
    EXPECT_EQ(formatText("%.3s|", std::string("ab")), "ab|");
    EXPECT_EQ(formatText("%.3s|", std::string("abc")), "abc|");
    EXPECT_EQ(formatText("%.3s|", std::string("abcd")), "abc|");
    EXPECT_EQ(formatText("%.0s|", std::string("abc")), "|");
    EXPECT_EQ(formatText("%.s|", std::string("abc")), "|");
    EXPECT_EQ(formatText("%.2s", std::string("aé")), "a\xC3");
    EXPECT_EQ(formatText("before %.4s after", std::optional<std::string>()), "before (nul after");
}

TEST(TextFormat, ErrorIsItsText) {
    EXPECT_EQ(formatText("%@", ErrorCode{ENOENT}), "No such file or directory");
    EXPECT_EQ(formatText("%s", ErrorCode{EACCES}), "Permission denied");
}

TEST(TextFormat, DateIsInUtcToTheSecond) {
    using namespace std::chrono;
    const WallTime date = sys_days(2026y / 1 / 5) + 3h + 4min + 9s;
    EXPECT_EQ(formatText("%@", date), "2026-01-05 03:04:09 +0000");
    EXPECT_EQ(formatText("%@", date + 999'999'999ns), "2026-01-05 03:04:09 +0000");
    EXPECT_EQ(formatText("%@", date + 1s), "2026-01-05 03:04:10 +0000");
    EXPECT_EQ(formatText("%@", WallTime{}), "1970-01-01 00:00:00 +0000");
    EXPECT_EQ(formatText("%@", WallTime{-1ns}), "1969-12-31 23:59:59 +0000");
    EXPECT_EQ(formatText("%@", WallTime{sys_days(2024y / 2 / 29)} + 24h - 1ns), "2024-02-29 23:59:59 +0000");
    EXPECT_EQ(formatText("%@", std::optional<WallTime>(WallTime{})), "1970-01-01 00:00:00 +0000");
}

TEST(TextFormat, ObjectIsOneLineJsonInInsertionOrder) {
    JsonObject object;
    object.add("z", 1);
    object.add("a", "x");
    object.add("m", JsonArray{true, nullptr, 0.5, JsonObject{{"deep", std::uint64_t{18446744073709551615u}}}});
    EXPECT_EQ(formatText("%@", object), R"({"z":1,"a":"x","m":[true,null,0.5,{"deep":18446744073709551615}]})");
    EXPECT_EQ(formatText("%@", JsonObject()), "{}");
    EXPECT_EQ(formatText("%@", JsonObject{{"empty", JsonArray{}}}), R"({"empty":[]})");
}

TEST(TextFormat, ObjectKeepsItsLineWhateverItsTextsHold) {
    const JsonObject object{{"k\n\"", std::string("a\"b\\c\nd\te\x01 é")}};
    EXPECT_EQ(formatText("%@", object), R"({"k\n\"":"a\"b\\c\nd\u0009e\u0001 é"})");
}

}  // namespace
}  // namespace quorvix
