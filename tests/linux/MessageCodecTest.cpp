#include "platform/linux/MessageCodec.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/linux/SharedMemory.h"

namespace quorvix::linuxos {
namespace {

using Bytes = std::vector<std::uint8_t>;

class MessageCodecTest : public testing::Test {
protected:
    // What it gives are views of the fixture's copy, good until the next call.
    DecodedMessage decode(const Bytes& bytes, std::size_t descriptors = 0) {
        bytes_ = bytes;
        return decodeMessage(bytes_, std::span<SharedMemory* const>(objects_).first(descriptors), storage_);
    }
    DecodeError errorOf(const Bytes& bytes, std::size_t descriptors = 0) { return decode(bytes, descriptors).error; }

    Bytes bytes_;
    EntryStorage storage_;
    std::array<DescriptorMemory, 5> memories_;
    std::array<SharedMemory*, 5> objects_ = {&memories_[0], &memories_[1], &memories_[2], &memories_[3], &memories_[4]};
};

Bytes everyType() {
    return MessageEncoder{}
        .int64("command", -1)
        .uint64("u", UINT64_MAX)
        .string("name", "main")
        .boolean("yes", true)
        .sharedMemory("shmem", 0)
        .bytes();
}

Bytes withByte(Bytes bytes, std::size_t at, std::uint8_t value) {
    bytes[at] = value;
    return bytes;
}

TEST_F(MessageCodecTest, DecodesTheProtocolPagesExample) {
    const Bytes bytes = {0x56, 0x45, 0x58, 0x31, 0x04, 0x00, 0x00, 0x00, 0x01, 0x07, 0x63, 0x6f, 0x6d, 0x6d, 0x61,
                         0x6e, 0x64, 0x03, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01, 0x09, 0x73, 0x74, 0x61,
                         0x72, 0x74, 0x54, 0x69, 0x6d, 0x65, 0x9a, 0x78, 0x56, 0x34, 0x12, 0x00, 0x00, 0x00, 0x03,
                         0x04, 0x6e, 0x61, 0x6d, 0x65, 0x04, 0x00, 0x00, 0x00, 0x6d, 0x61, 0x69, 0x6e, 0x04, 0x0a,
                         0x73, 0x61, 0x76, 0x65, 0x52, 0x65, 0x70, 0x6f, 0x72, 0x74, 0x01};
    const DecodedMessage decoded = decode(bytes);
    ASSERT_EQ(decoded.error, DecodeError::none);
    const MessageDictionary message(decoded.entries, {});
    EXPECT_EQ(message.int64("command"), 3);
    EXPECT_EQ(message.int64("startTime"), 0x123456789A);
    EXPECT_EQ(message.string("name"), "main");
    EXPECT_TRUE(message.boolean("saveReport"));
}

TEST_F(MessageCodecTest, DecodesEveryType) {
    const DecodedMessage decoded = decode(everyType(), 1);
    ASSERT_EQ(decoded.error, DecodeError::none);
    const MessageDictionary message(decoded.entries, {});
    EXPECT_EQ(message.int64("command"), -1);
    EXPECT_EQ(message.uint64("u"), UINT64_MAX);
    EXPECT_EQ(message.string("name"), "main");
    EXPECT_TRUE(message.boolean("yes"));
    EXPECT_EQ(message.sharedMemory("shmem"), &memories_[0]);
}

TEST_F(MessageCodecTest, AMessageCutAtAnyLengthDoesNotDecode) {
    const Bytes whole = everyType();
    for (std::size_t length = 0; length < whole.size(); ++length) {
        const Bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length));
        const DecodeError error = errorOf(cut, 1);
        const DecodeError expected = length == 0  ? DecodeError::empty
                                     : length < 8 ? DecodeError::headerCut
                                                  : DecodeError::entryCut;
        EXPECT_EQ(error, expected) << "cut to " << length;
    }
}

TEST_F(MessageCodecTest, HeaderMustBeExact) {
    const Bytes good = MessageEncoder{}.bytes();
    EXPECT_EQ(errorOf(good), DecodeError::none);
    for (std::size_t at = 0; at < 4; ++at) EXPECT_EQ(errorOf(withByte(good, at, 'x')), DecodeError::badMagic);
    EXPECT_EQ(errorOf(withByte(good, 6, 1)), DecodeError::reservedNotZero);
    EXPECT_EQ(errorOf(withByte(good, 7, 1)), DecodeError::reservedNotZero);
}

TEST_F(MessageCodecTest, SixtyFourEntriesDecodeAndSixtyFiveDoNot) {
    MessageEncoder encoder;
    for (int i = 0; i < 64; ++i) encoder.boolean("key" + std::to_string(i), true);
    EXPECT_EQ(decode(encoder.bytes()).entries.size(), 64u);
    encoder.boolean("one more", true);
    EXPECT_EQ(errorOf(encoder.bytes()), DecodeError::tooManyEntries);
}

TEST_F(MessageCodecTest, TheLongestDatagramDecodesAndOneByteMoreDoesNot) {
    const std::size_t overhead = MessageEncoder{}.string("t", "").bytes().size();
    const std::string text(kMaximumDatagramBytes - overhead, 'x');
    const Bytes longest = MessageEncoder{}.string("t", text).bytes();
    ASSERT_EQ(longest.size(), kMaximumDatagramBytes);
    EXPECT_EQ(errorOf(longest), DecodeError::none);
    EXPECT_EQ(errorOf(MessageEncoder{}.string("t", text + "x").bytes()), DecodeError::tooLong);
}

TEST_F(MessageCodecTest, KeysHaveOneTo255BytesOfUtf8WithoutNul) {
    const auto errorOfKey = [&](std::string_view key) { return errorOf(MessageEncoder{}.boolean(key, true).bytes()); };
    EXPECT_EQ(errorOfKey("k"), DecodeError::none);
    EXPECT_EQ(errorOfKey(std::string(255, 'k')), DecodeError::none);
    EXPECT_EQ(errorOfKey("\xC3\xA4\xF0\x9F\x98\x80"), DecodeError::none);
    EXPECT_EQ(errorOfKey(""), DecodeError::emptyKey);
    EXPECT_EQ(errorOfKey(std::string_view("a\0b", 3)), DecodeError::keyHasNul);
    for (const char* bad : {"\x80", "\xC0\x80", "\xC3", "\xED\xA0\x80", "\xE0\x80\x80", "\xF4\x90\x80\x80", "\xFF"}) {
        EXPECT_EQ(errorOfKey(bad), DecodeError::keyNotUtf8);
    }
}

TEST_F(MessageCodecTest, ARepeatedKeyDoesNotDecodeWhateverItsType) {
    const DecodedMessage decoded = decode(MessageEncoder{}.int64("x", 1).int64("y", 1).string("x", "a").bytes());
    EXPECT_EQ(decoded.error, DecodeError::repeatedKey);
    EXPECT_EQ(decoded.untrustedKey, "x");
    MessageEncoder atTheEnd;
    for (int i = 0; i < 63; ++i) atTheEnd.boolean("key" + std::to_string(i), true);
    EXPECT_EQ(errorOf(atTheEnd.boolean("key0", true).bytes()), DecodeError::repeatedKey);
}

TEST_F(MessageCodecTest, TypesOtherThanOneToFiveDoNotDecode) {
    for (const int type : {0, 6, 7, 127, 255}) {
        EXPECT_EQ(errorOf(MessageEncoder{}.raw(static_cast<std::uint8_t>(type), "k", "12345678").bytes()),
                  DecodeError::unknownType);
    }
}

TEST_F(MessageCodecTest, StringsMayHoldAnyBytesButNul) {
    const std::string_view odd("\xFF\n\x80\"", 4);
    EXPECT_EQ(MessageDictionary(decode(MessageEncoder{}.string("t", odd).bytes()).entries, {}).string("t"), odd);
    EXPECT_EQ(MessageDictionary(decode(MessageEncoder{}.string("t", "").bytes()).entries, {}).string("t"), "");
    EXPECT_EQ(errorOf(MessageEncoder{}.string("t", std::string_view("\0", 1)).bytes()), DecodeError::stringHasNul);
    EXPECT_EQ(errorOf(MessageEncoder{}.raw(3, "t", "\xFF\xFF\xFF\xFF").bytes()), DecodeError::entryCut);
}

TEST_F(MessageCodecTest, BooleansAreZeroOrOne) {
    EXPECT_EQ(errorOf(MessageEncoder{}.boolean("b", false).bytes()), DecodeError::none);
    for (const char* value : {"\x02", "\xFF"}) {
        EXPECT_EQ(errorOf(MessageEncoder{}.raw(4, "b", value).bytes()), DecodeError::badBoolean);
    }
}

TEST_F(MessageCodecTest, EveryDescriptorIsNamedByExactlyOneEntry) {
    const Bytes two = MessageEncoder{}.sharedMemory("a", 1).sharedMemory("b", 0).bytes();
    EXPECT_EQ(MessageDictionary(decode(two, 2).entries, {}).sharedMemory("a"), &memories_[1]);
    EXPECT_EQ(errorOf(two, 1), DecodeError::descriptorMissing);
    EXPECT_EQ(errorOf(two, 0), DecodeError::descriptorMissing);
    EXPECT_EQ(errorOf(two, 3), DecodeError::surplusDescriptor);
    EXPECT_EQ(errorOf(MessageEncoder{}.int64("command", 1).bytes(), 1), DecodeError::surplusDescriptor);
    EXPECT_EQ(errorOf(MessageEncoder{}.sharedMemory("a", 0).sharedMemory("b", 0).bytes(), 1),
              DecodeError::descriptorNamedTwice);
    EXPECT_EQ(errorOf(MessageEncoder{}.sharedMemory("a", 255).bytes(), 4), DecodeError::descriptorMissing);
    EXPECT_EQ(errorOf(two, 5), DecodeError::tooManyDescriptors);
}

TEST_F(MessageCodecTest, BytesAfterTheLastEntryDoNotDecode) {
    Bytes bytes = everyType();
    bytes.push_back(0);
    EXPECT_EQ(errorOf(bytes, 1), DecodeError::trailingBytes);
}

TEST_F(MessageCodecTest, DescriptionNamesSizeReasonAndKey) {
    EXPECT_EQ(describeUndecodable(123, DecodeError::repeatedKey, "x"),
              "<undecodable message, 123 bytes: repeated key \"x\">");
    EXPECT_EQ(describeUndecodable(0, DecodeError::empty, {}), "<undecodable message, 0 bytes: empty>");
    EXPECT_EQ(describeUndecodable(65537, DecodeError::tooLong, {}),
              "<undecodable message, more than 65536 bytes: longer than 65536 bytes>");
}

TEST_F(MessageCodecTest, DescriptionEscapesAndCutsTheClientsBytes) {
    EXPECT_EQ(describeUndecodable(9, DecodeError::keyNotUtf8, "a\n\"\\\xFF"),
              "<undecodable message, 9 bytes: key is not UTF-8 \"a\\x0a\\\"\\\\\\xff\">");
    const std::string exact = describeUndecodable(1, DecodeError::repeatedKey, std::string(256, 'k'));
    EXPECT_NE(exact.find(std::string(256, 'k') + "\">"), std::string::npos);
    const std::string cut = describeUndecodable(1, DecodeError::repeatedKey, std::string(257, 'k'));
    EXPECT_NE(cut.find(std::string(256, 'k') + "\"...>"), std::string::npos);
}

TEST_F(MessageCodecTest, DescriptionOfADictionaryShowsTypesAndValues) {
    EXPECT_EQ(describeDictionary(decode(everyType(), 1).entries),
              "{\"command\": int64 -1, \"u\": uint64 18446744073709551615, \"name\": string \"main\", "
              "\"yes\": bool true, \"shmem\": shared memory}");
    EXPECT_EQ(describeDictionary({}), "{}");
}

}  // namespace
}  // namespace quorvix::linuxos
