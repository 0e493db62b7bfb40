#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <limits>
#include <string>

#include "platform/linux/Json.h"
#include "platform/sim/SimJson.h"

namespace quorvix::json_contract {
namespace {

template <class Json>
class JsonContract : public testing::Test {
protected:
    // The object's text, or the error's number.
    std::string text(const JsonObject& object) {
        const auto bytes = json_.serialise(object);
        if (!bytes) return std::to_string(bytes.error().value);
        const auto made = json_.makeText(*bytes);
        return made ? *made : "no text";
    }

    Json json_;
};

using Services = testing::Types<linuxos::LinuxJson, sim::SimJson>;
TYPED_TEST_SUITE(JsonContract, Services);

TYPED_TEST(JsonContract, WritesMembersCompactInInsertionOrder) {
    EXPECT_EQ(this->text({{"Zebra", 1}, {"Apple", "two"}, {"Mango", nullptr}}),
              R"({"Zebra":1,"Apple":"two","Mango":null})");
    EXPECT_EQ(this->text({}), "{}");
}

TYPED_TEST(JsonContract, WritesNestedValues) {
    EXPECT_EQ(this->text({{"a", JsonArray{1, JsonArray{}, true}}, {"o", JsonObject{{"x", false}}}}),
              R"({"a":[1,[],true],"o":{"x":false}})");
}

TYPED_TEST(JsonContract, IntegersAreExact) {
    EXPECT_EQ(this->text({{"least", std::numeric_limits<std::int64_t>::min()},
                          {"most", std::numeric_limits<std::int64_t>::max()},
                          {"unsigned", std::numeric_limits<std::uint64_t>::max()},
                          {"pid", std::int32_t{-1}}}),
              R"({"least":-9223372036854775808,"most":9223372036854775807,)"
              R"("unsigned":18446744073709551615,"pid":-1})");
}

TYPED_TEST(JsonContract, RealsReadBackTheSame) {
    EXPECT_EQ(this->text({{"r", 0.1}, {"whole", 3.0}, {"big", 1e300}}), R"({"r":0.1,"whole":3,"big":1e+300})");
}

TYPED_TEST(JsonContract, EscapesWhatMustBeAndNothingElse) {
    EXPECT_EQ(this->text({{"k\"", "a\"b\\c\n\t\r\b\f\x01\x1f\x7f/"}}),
              "{\"k\\\"\":\"a\\\"b\\\\c\\n\\t\\r\\b\\f\\u0001\\u001f\x7f/\"}");
    EXPECT_EQ(this->text({{"nul", std::string("a\0b", 3)}}), R"({"nul":"a\u0000b"})");
    EXPECT_EQ(this->text({{"é", "日本 \xF0\x9F\x98\x80"}}), "{\"é\":\"日本 \xF0\x9F\x98\x80\"}");
}

TYPED_TEST(JsonContract, TextThatIsNotUtf8Fails) {
    for (const char* bytes : {"\xff", "\xc0\x80", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\xe2\x82", "a\x80"}) {
        EXPECT_EQ(this->text({{"name", bytes}}), std::to_string(EILSEQ));
        EXPECT_EQ(this->text({{bytes, 1}}), std::to_string(EILSEQ));
        EXPECT_EQ(this->text({{"in", JsonArray{JsonObject{{"deep", bytes}}}}}), std::to_string(EILSEQ));
    }
}

TYPED_TEST(JsonContract, TheBoundsOfUtf8AreText) {
    for (const char* text :
         {"\xc2\x80", "\xe0\xa0\x80", "\xed\x9f\xbf", "\xee\x80\x80", "\xf0\x90\x80\x80", "\xf4\x8f\xbf\xbf"}) {
        EXPECT_EQ(this->text({{"t", text}}), std::string("{\"t\":\"") + text + "\"}");
    }
}

TYPED_TEST(JsonContract, NumbersThatAreNotFiniteFail) {
    EXPECT_EQ(this->text({{"n", std::numeric_limits<double>::quiet_NaN()}}), std::to_string(EDOM));
    EXPECT_EQ(this->text({{"n", -std::numeric_limits<double>::infinity()}}), std::to_string(EDOM));
}

TYPED_TEST(JsonContract, MakesTextOfUtf8BytesOnly) {
    const auto good = this->json_.makeText({'h', 'i', 0xC3, 0xA9});
    ASSERT_TRUE(good);
    EXPECT_EQ(*good, "hié");
    const auto bad = this->json_.makeText({'h', 0xC3});
    ASSERT_FALSE(bad);
    EXPECT_EQ(bad.error().value, EILSEQ);
}

}  // namespace
}  // namespace quorvix::json_contract
