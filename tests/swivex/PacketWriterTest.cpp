#include "swivex/PacketWriter.h"

#include <gtest/gtest.h>

#include "tests/swivex/TraceReader.h"

using namespace quorvix::swivex;
using namespace quorvix::swivex::tests;

namespace {

std::string textOf(const PacketWriter& writer) { return {writer.encoded().begin(), writer.encoded().end()}; }

}  // namespace

TEST(PacketWriter, WritesNumbersInBase128) {
    PacketWriter writer;
    writer.number(1, 0);
    writer.number(1, 300);
    writer.signedNumber(16, -1);
    EXPECT_EQ(textOf(writer), std::string("\x08\x00\x08\xac\x02\x80\x01", 7) + std::string(9, '\xff') + "\x01");
}

TEST(PacketWriter, WritesFixedNumbersLowByteFirst) {
    PacketWriter writer;
    writer.fixed64(2, 0x0102030405060708);
    EXPECT_EQ(textOf(writer), "\x11\x08\x07\x06\x05\x04\x03\x02\x01");
}

TEST(PacketWriter, PutsTheLengthBeforeAMessageOfAnySize) {
    for (const std::size_t size : {0, 1, 124, 125, 126, 16379, 16380, 16381, 16382, 3000000}) {
        PacketWriter writer;
        writer.message(3, [&] { writer.text(1, std::string(size, 'x')); });
        writer.number(4, 7);
        const Message message(textOf(writer));
        EXPECT_EQ(message.message(3).text(1).size(), size);
        EXPECT_EQ(message.number(4), 7U) << size;
    }
}

TEST(PacketWriter, NestsMessages) {
    PacketWriter writer;
    writer.message(1, [&] {
        writer.message(2, [&] { writer.text(3, std::string(200, 'a')); });
        writer.message(2, [&] {});
        writer.number(5, 9);
    });
    const Message outer = Message(textOf(writer)).message(1);
    ASSERT_EQ(outer.messages(2).size(), 2U);
    EXPECT_EQ(outer.messages(2)[0].text(3), std::string(200, 'a'));
    EXPECT_TRUE(outer.messages(2)[1].fields.empty());
    EXPECT_EQ(outer.number(5), 9U);
}
