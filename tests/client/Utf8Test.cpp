#include <gtest/gtest.h>

#include <string>

extern "C" {
#include "utf8.h"
}

namespace {

bool isUtf8(const std::string& text) { return quorvix_is_utf8(text.data(), text.size()); }

TEST(Utf8Test, AcceptsTheBordersOfEachLength) {
    for (const char* text : {"", "\x7f", "\xc2\x80", "\xdf\xbf", "\xe0\xa0\x80", "\xed\x9f\xbf", "\xee\x80\x80",
                             "\xef\xbf\xbf", "\xf0\x90\x80\x80", "\xf4\x8f\xbf\xbf"}) {
        EXPECT_TRUE(isUtf8(text)) << text;
    }
}

TEST(Utf8Test, RefusesOverlongSurrogatesTooLargeAndCut) {
    for (const char* text : {"\x80", "\xc0\x80", "\xc1\xbf", "\xc2", "\xe0\x9f\xbf", "\xed\xa0\x80", "\xef\xbf",
                             "\xf0\x8f\xbf\xbf", "\xf4\x90\x80\x80", "\xf5\x80\x80\x80", "\xff", "\xc2\x41"}) {
        EXPECT_FALSE(isUtf8(text));
    }
}

TEST(Utf8Test, CutsBetweenCharacters) {
    const std::string text = "ab\xf0\x9f\x98\x80";
    EXPECT_EQ(quorvix_utf8_cut(text.data(), text.size(), 6), 6u);
    for (std::size_t maximum : {2u, 3u, 4u, 5u}) EXPECT_EQ(quorvix_utf8_cut(text.data(), text.size(), maximum), 2u);
    EXPECT_EQ(quorvix_utf8_cut(text.data(), text.size(), 1), 1u);
}

TEST(Utf8Test, CutsOtherTextWhereTheLimitIs) {
    const std::string text(10, '\x80');
    EXPECT_EQ(quorvix_utf8_cut(text.data(), text.size(), 7), 7u);
}

}  // namespace
