#include <sys/mman.h>

#include <cerrno>
#include <memory>

#include "tests/client/support/ClientTest.h"

namespace quorvix::test {
namespace {

struct DestroyMessage {
    void operator()(quorvix_message* message) const { quorvix_message_destroy(message); }
};
using Message = std::unique_ptr<quorvix_message, DestroyMessage>;

Message newMessage() { return Message(quorvix_message_create()); }

using MessageTest = ConnectedClientTest;

TEST_F(MessageTest, CarriesEveryTypeInOrder) {
    Message message = newMessage();
    ASSERT_EQ(quorvix_message_set_int64(message.get(), "i", INT64_MIN), 0);
    ASSERT_EQ(quorvix_message_set_uint64(message.get(), "u", UINT64_MAX), 0);
    ASSERT_EQ(quorvix_message_set_string(message.get(), "s", "\xff not utf-8"), 0);
    ASSERT_EQ(quorvix_message_set_bool(message.get(), "no", false), 0);
    ASSERT_EQ(quorvix_message_set_string(message.get(), "", "x"), EINVAL);
    ASSERT_EQ(quorvix_message_set_bool(message.get(), "y\xc3\xa9s", true), 0);
    ASSERT_EQ(quorvix_message_send(message.release()), 0);
    EXPECT_EQ(receiveBytes(peer_), Wire()
                                       .int64("i", INT64_MIN)
                                       .uint64("u", UINT64_MAX)
                                       .string("s", "\xff not utf-8")
                                       .boolean("no", false)
                                       .boolean("y\xc3\xa9s", true)
                                       .bytes());
}

TEST_F(MessageTest, EmptyMessageIsAHeader) {
    ASSERT_EQ(quorvix_message_send(newMessage().release()), 0);
    EXPECT_EQ(receiveBytes(peer_), Wire().bytes());
}

TEST_F(MessageTest, CarriesUpToFourDescriptors) {
    const Descriptor file(memfd_create("test", MFD_CLOEXEC));
    Message message = newMessage();
    Wire expected;
    for (int i = 0; i < 4; ++i) {
        const std::string key = "m" + std::to_string(i);
        ASSERT_EQ(quorvix_message_set_shared_memory(message.get(), key.c_str(), file.get()), 0);
        expected.sharedMemory(key, static_cast<std::uint8_t>(i));
    }
    EXPECT_EQ(quorvix_message_set_shared_memory(message.get(), "m4", file.get()), E2BIG);
    EXPECT_EQ(quorvix_message_set_shared_memory(newMessage().get(), "m", -1), EBADF);
    ASSERT_EQ(quorvix_message_send(message.release()), 0);
    const auto datagram = peer_.receive();
    ASSERT_TRUE(datagram);
    EXPECT_EQ(datagram->bytes, expected.bytes());
    EXPECT_EQ(datagram->descriptors.size(), 4u);
}

TEST_F(MessageTest, LargestMessageIsSent) {
    Message message = newMessage();
    const std::size_t room = QUORVIX_MESSAGE_MAXIMUM_BYTES - 8 - 2 - 1 - 4;
    ASSERT_EQ(quorvix_message_set_string(message.get(), "s", std::string(room + 1, 'x').c_str()), E2BIG);
    ASSERT_EQ(quorvix_message_set_string(message.get(), "s", std::string(room, 'x').c_str()), 0);
    ASSERT_EQ(quorvix_message_set_bool(message.get(), "b", true), E2BIG);
    ASSERT_EQ(quorvix_message_send(message.release()), 0);
    EXPECT_EQ(receiveBytes(peer_), Wire().string("s", std::string(room, 'x')).bytes());
}

TEST(MessageRulesTest, KeyMustBeThereOnceValidAndShort) {
    Message message = newMessage();
    EXPECT_EQ(quorvix_message_set_int64(message.get(), nullptr, 1), EINVAL);
    EXPECT_EQ(quorvix_message_set_int64(message.get(), "", 1), EINVAL);
    EXPECT_EQ(quorvix_message_set_int64(message.get(), "\xc0\x80", 1), EINVAL);
    EXPECT_EQ(quorvix_message_set_int64(message.get(), std::string(256, 'k').c_str(), 1), EINVAL);
    EXPECT_EQ(quorvix_message_set_int64(message.get(), std::string(255, 'k').c_str(), 1), 0);
    EXPECT_EQ(quorvix_message_set_string(message.get(), "text", "value"), 0);
    EXPECT_EQ(quorvix_message_set_bool(message.get(), "text", true), EEXIST);
    EXPECT_EQ(quorvix_message_set_string(message.get(), "other", nullptr), EINVAL);
    EXPECT_EQ(quorvix_message_set_bool(message.get(), "tex", true), 0);
}

TEST(MessageRulesTest, HoldsSixtyFourEntries) {
    Message message = newMessage();
    for (int i = 0; i < 64; ++i) {
        ASSERT_EQ(quorvix_message_set_int64(message.get(), std::to_string(i).c_str(), i), 0);
    }
    EXPECT_EQ(quorvix_message_set_int64(message.get(), "64", 64), E2BIG);
}

TEST(MessageRulesTest, NothingIsNoMessage) {
    EXPECT_EQ(quorvix_message_send(nullptr), EINVAL);
    EXPECT_EQ(quorvix_message_set_bool(nullptr, "b", true), EINVAL);
    quorvix_message_destroy(nullptr);
}

}  // namespace
}  // namespace quorvix::test
