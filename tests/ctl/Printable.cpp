#include "ctl/Printable.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

namespace quorvix::ctl {
namespace {

TEST(Printable, WhatATerminalObeysBecomesAQuestionMark) {
    EXPECT_EQ(printable("a\x1b[2Jb\nc\x7f"), "a?[2Jb?c?");
    EXPECT_EQ(printable("a\xc2\x9b"
                        "2J"),
              "a?2J");  // U+009B
    EXPECT_EQ(printable("a\xe2\x80\xae"
                        "b"),
              "a?b");  // U+202E
    EXPECT_EQ(printable("a\xe2\x81\xa6"
                        "b\xe2\x81\xa9"),
              "a?b?");  // U+2066, U+2069
}

TEST(Printable, WhatIsNextToItStays) {
    const std::string stays = "\x20~\xc2\xa0\xe2\x80\xaf\xe2\x81\xa5\xe2\x81\xaa";  // U+00A0, U+202F, U+2065, U+206A
    EXPECT_EQ(printable(stays), stays);
    EXPECT_EQ(printable("Überall 日本"), "Überall 日本");
}

TEST(Printable, WhatIsNoTextIsReplaced) {
    EXPECT_EQ(printable("a\xff"
                        "b"),
              "a\xef\xbf\xbd"
              "b");
}

TEST(Printable, JsonIsPlainAsciiAndParsesToWhatItWas) {
    const nlohmann::ordered_json document{{"name", "Über\x1b[2J\x7f"}};
    const std::string text = jsonText(document);
    for (const char character : text) EXPECT_TRUE(character == '\n' || (character >= 0x20 && character < 0x7f)) << text;
    EXPECT_EQ(nlohmann::ordered_json::parse(text), document);
}

TEST(Printable, JsonOfWhatIsNoTextIsValid) {
    EXPECT_EQ(nlohmann::ordered_json::parse(jsonText({{"name", "a\xff"}}))["name"], "a\xef\xbf\xbd");
}

}  // namespace
}  // namespace quorvix::ctl
