#include "platform/linux/PropertyListFile.h"

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>

#include "fuzz/PropertyListEntry.h"

namespace quorvix::linuxos {
namespace {

std::string plist(std::string_view content) {
    return std::string(R"(<?xml version="1.0" encoding="UTF-8"?><plist version="1.0">)").append(content) + "</plist>";
}

// What parsing `content` gives: the value, or the error's number.
std::optional<PropertyListValue> parsed(std::string_view content) {
    Result<PropertyListValue> value = parsePropertyList(plist(content));
    if (value) return *value;
    EXPECT_EQ(value.error().value, EINVAL) << content;
    return std::nullopt;
}

int parseError(std::string_view text) {
    const Result<PropertyListValue> value = parsePropertyList(text);
    return value ? 0 : value.error().value;
}

int writeError(const PropertyListValue& value) {
    const Result<std::string> text = writePropertyList(value);
    return text ? 0 : text.error().value;
}

std::optional<PropertyListValue> roundTrip(const PropertyListValue& value) {
    const Result<std::string> text = writePropertyList(value);
    if (!text) return std::nullopt;
    const Result<PropertyListValue> again = parsePropertyList(*text);
    if (!again) return std::nullopt;
    return *again;
}

PropertyListValue nested(int depth) {
    PropertyListValue value{PropertyListArray{}};
    for (int i = 1; i < depth; ++i) value = PropertyListArray{value};
    return value;
}

std::string nestedText(int depth) {
    std::string text;
    for (int i = 0; i < depth; ++i) text += "<array>";
    for (int i = 0; i < depth; ++i) text += "</array>";
    return plist(text);
}

TEST(PropertyListFile, EveryTypeSurvivesARoundTrip) {
    const PropertyListDictionary all{
        {"", ""},
        {"array", PropertyListArray{true, 1, PropertyListArray{}}},
        {"data", PropertyListData{{0, 1, 2, 255}}},
        {"date", PropertyListDate{-86400.0 * 366}},
        {"dictionary", PropertyListDictionary{{"inner", false}}},
        {"infinity", std::numeric_limits<double>::infinity()},
        {"largest", std::numeric_limits<std::int64_t>::max()},
        {"minus infinity", -std::numeric_limits<double>::infinity()},
        {"real", 0.1},
        {"smallest", std::numeric_limits<std::int64_t>::min()},
        {"text & <key> \"é\"", " a\r\n\tb]]> &amp; "},
        {"true", true},
        {"white space", "  \n "},
    };
    EXPECT_EQ(roundTrip(all), PropertyListValue(all));
}

TEST(PropertyListFile, NotANumberSurvivesARoundTrip) {
    const auto value = roundTrip(std::numeric_limits<double>::quiet_NaN());
    ASSERT_TRUE(value);
    EXPECT_TRUE(std::isnan(value->real().value()));
}

TEST(PropertyListFile, DataOfEveryLengthSurvivesARoundTrip) {
    PropertyListData data;
    for (int length = 0; length < 9; ++length) {
        EXPECT_EQ(roundTrip(data), PropertyListValue(data)) << length;
        data.bytes.push_back(static_cast<std::uint8_t>(250 + length));
    }
}

TEST(PropertyListFile, WritesReadableTextWithKeysInOrder) {
    const Result<std::string> text =
        writePropertyList(PropertyListDictionary{{"b", PropertyListArray{2, 2.0}}, {"a", true}, {"c", "x<y"}});
    ASSERT_TRUE(text);
    EXPECT_EQ(*text,
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n"
              "\t<key>a</key>\n\t<true/>\n\t<key>b</key>\n\t<array>\n\t\t<integer>2</integer>\n\t\t<real>2</real>\n"
              "\t</array>\n\t<key>c</key>\n\t<string>x&lt;y</string>\n</dict>\n</plist>\n");
}

TEST(PropertyListFile, IntegersUpToBothBounds) {
    constexpr auto kMin = std::numeric_limits<std::int64_t>::min();
    EXPECT_EQ(parsed("<integer>-9223372036854775808</integer>"), PropertyListValue(kMin));
    EXPECT_EQ(parsed("<integer>-9223372036854775809</integer>"), std::nullopt);
    EXPECT_EQ(parsed("<integer>9223372036854775808</integer>"), PropertyListValue(kMin));
    EXPECT_EQ(parsed("<integer>18446744073709551615</integer>"), PropertyListValue(-1));
    EXPECT_EQ(parsed("<integer>18446744073709551616</integer>"), std::nullopt);
    EXPECT_EQ(parsed("<integer> +7\n</integer>"), PropertyListValue(7));
}

TEST(PropertyListFile, IntegersAreDecimalOnly) {
    for (const char* text : {"", "0x10", "1.0", "1 2", "+-1", "--1", "one"}) {
        EXPECT_EQ(parsed("<integer>" + std::string(text) + "</integer>"), std::nullopt) << text;
    }
}

TEST(PropertyListFile, RealsTakeEveryForm) {
    EXPECT_EQ(parsed("<real>2.5</real>"), PropertyListValue(2.5));
    EXPECT_EQ(parsed("<real> +1e3 </real>"), PropertyListValue(1000.0));
    EXPECT_EQ(parsed("<real>1e999</real>"), PropertyListValue(std::numeric_limits<double>::infinity()));
    EXPECT_EQ(parsed("<real>-1e999</real>"), PropertyListValue(-std::numeric_limits<double>::infinity()));
    EXPECT_EQ(parsed("<real>1e-999</real>"), PropertyListValue(0.0));
    EXPECT_EQ(parsed("<real>-infinity</real>"), PropertyListValue(-std::numeric_limits<double>::infinity()));
    for (const char* text : {"", "1,5", "0x1p3", "1.5 s", "+-1"}) {
        EXPECT_EQ(parsed("<real>" + std::string(text) + "</real>"), std::nullopt) << text;
    }
}

TEST(PropertyListFile, DatesCountSecondsFrom2001) {
    EXPECT_EQ(parsed("<date>2001-01-01T00:00:00Z</date>"), PropertyListValue(PropertyListDate{0}));
    EXPECT_EQ(parsed("<date>2004-02-29T23:59:59Z</date>"), PropertyListValue(PropertyListDate{99791999}));
    EXPECT_EQ(parsed("<date>2000-12-31T23:59:59Z</date>"), PropertyListValue(PropertyListDate{-1}));
    for (const char* text : {"", "2001-02-29T00:00:00Z", "2001-01-01T24:00:00Z", "2001-01-01T00:60:00Z",
                             "2001-01-01T00:00:60Z", "2001-01-01 00:00:00Z", "2001-01-01T00:00:0xZ"}) {
        EXPECT_EQ(parsed("<date>" + std::string(text) + "</date>"), std::nullopt) << text;
    }
}

TEST(PropertyListFile, DatesOutsideTheFourDigitYearsAreNotWritten) {
    const PropertyListValue last = *parsed("<date>9999-12-31T23:59:59Z</date>");
    const PropertyListValue first = *parsed("<date>0000-01-01T00:00:00Z</date>");
    EXPECT_EQ(roundTrip(last), last);
    EXPECT_EQ(roundTrip(first), first);
    const auto seconds = [](const PropertyListValue& value) {
        return std::get<PropertyListDate>(value.content()).secondsSince2001;
    };
    EXPECT_EQ(writeError(PropertyListDate{seconds(last) + 1}), EDOM);
    EXPECT_EQ(writeError(PropertyListDate{seconds(first) - 1}), EDOM);
    EXPECT_EQ(writeError(PropertyListDate{1e300}), EDOM);
    EXPECT_EQ(writeError(PropertyListDate{std::numeric_limits<double>::quiet_NaN()}), EDOM);
}

TEST(PropertyListFile, DataNeedsItsPadding) {
    EXPECT_EQ(parsed("<data>AAE=</data>"), PropertyListValue(PropertyListData{{0, 1}}));
    EXPECT_EQ(parsed("<data> A A\n==</data>"), PropertyListValue(PropertyListData{{0}}));
    for (const char* text : {"A", "AA", "AA=", "AA===", "AAE", "AAEC=", "=", "AA=A", "A*E="}) {
        EXPECT_EQ(parsed("<data>" + std::string(text) + "</data>"), std::nullopt) << text;
    }
}

TEST(PropertyListFile, TextIsTakenAsItStands) {
    EXPECT_EQ(parsed("<string>  </string>"), PropertyListValue("  "));
    EXPECT_EQ(parsed("<string>a<![CDATA[<b>]]>&lt;c&#x41;</string>"), PropertyListValue("a<b><cA"));
    EXPECT_EQ(parsed("<string/>"), PropertyListValue(""));
}

TEST(PropertyListFile, MalformedListsAreErrors) {
    const std::string whole = plist("<dict><key>a</key><integer>1</integer></dict>");
    for (std::size_t length = 0; length < whole.size(); ++length) {
        EXPECT_EQ(parseError(whole.substr(0, length)), EINVAL) << length;
    }
    EXPECT_EQ(parseError(whole), 0);
    for (const char* content :
         {"", "<true/><true/>", "<dict><key>a</key></dict>", "<dict><string>a</string><true/></dict>",
          "<dict>x<key>a</key><true/></dict>", "<array>x</array>", "<true>x</true>", "<true><true/></true>",
          "<string><b/></string>", "<unknown/>", "<key>a</key>", "text", "<string>&#1;</string>",
          "<string>\xC3(</string>", "<dict><key>a</key><true/><key>a</key><true/></dict>"}) {
        EXPECT_EQ(parsed(content), std::nullopt) << content;
    }
    EXPECT_EQ(parseError("<dict/>"), EINVAL);
    EXPECT_EQ(parseError("<plist><true/></plist><plist><true/></plist>"), EINVAL);
    EXPECT_EQ(parseError(std::string("<plist><true/></plist>\0", 23)), EINVAL);
}

TEST(PropertyListFile, DeclaredEntitiesAreRefused) {
    EXPECT_EQ(parseError("<!DOCTYPE plist SYSTEM \"list.dtd\"><plist><true/></plist>"), 0);
    EXPECT_EQ(parseError("<!DOCTYPE plist [<!ENTITY a \"b\">]><plist><string>&a;</string></plist>"), EINVAL);
}

TEST(PropertyListFile, DepthUpToTheLimit) {
    EXPECT_EQ(parseError(nestedText(kPropertyListMaxDepth)), 0);
    EXPECT_EQ(parseError(nestedText(kPropertyListMaxDepth + 1)), EINVAL);
    EXPECT_EQ(parseError(nestedText(50000)), EINVAL);
    EXPECT_EQ(writeError(nested(kPropertyListMaxDepth)), 0);
    EXPECT_EQ(writeError(nested(kPropertyListMaxDepth + 1)), EINVAL);
}

TEST(PropertyListFile, SizeUpToTheLimit) {
    const std::size_t frame = plist("<string></string>").size();
    const auto listOfSize = [&](std::size_t size) {
        return plist("<string>" + std::string(size - frame, 'x') + "</string>");
    };
    EXPECT_EQ(parseError(listOfSize(kPropertyListMaxBytes)), 0);
    EXPECT_EQ(parseError(listOfSize(kPropertyListMaxBytes + 1)), EFBIG);

    const std::size_t writtenFrame = writePropertyList("")->size();
    EXPECT_EQ(writeError(std::string(kPropertyListMaxBytes - writtenFrame, 'x')), 0);
    EXPECT_EQ(writeError(std::string(kPropertyListMaxBytes - writtenFrame + 1, 'x')), EFBIG);
}

TEST(PropertyListFile, TextThatXmlCannotHoldIsNotWritten) {
    EXPECT_EQ(writeError("\x1F"), EILSEQ);
    EXPECT_EQ(writeError(" \t\r\n"), 0);
    EXPECT_EQ(writeError("\xFF"), EILSEQ);
    EXPECT_EQ(writeError("\xEF\xBF\xBD"), 0);
    EXPECT_EQ(writeError("\xEF\xBF\xBE"), EILSEQ);
    EXPECT_EQ(writeError(std::string("a\0b", 3)), EILSEQ);
    EXPECT_EQ(writeError(PropertyListDictionary{{"\x01", true}}), EILSEQ);
}

TEST(PropertyListFile, OnlyADictionaryIsADictionary) {
    EXPECT_EQ(parsePropertyListDictionary(plist("<array/>")).error().value, EINVAL);
    EXPECT_TRUE(parsePropertyListDictionary(plist("<dict/>"))->empty());
}

TEST(PropertyListFile, EveryCorpusFileHoldsTheRoundTrip) {
    const auto folder = std::filesystem::path(QUORVIX_SOURCE_FOLDER) / "fuzz/corpus/property-list";
    int files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        std::ifstream file(entry.path(), std::ios::binary);
        const std::string bytes{std::istreambuf_iterator<char>(file), {}};
        const bool good = entry.path().filename().string().starts_with("good-");
        const bool bad = entry.path().filename().string().starts_with("bad-");
        const bool isList = propertyListRoundTripHolds(bytes);
        if (good || bad) {
            EXPECT_EQ(isList, good) << entry.path();
            ++files;
        }
    }
    EXPECT_GE(files, 18);
}

}  // namespace
}  // namespace quorvix::linuxos
