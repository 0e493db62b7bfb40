#include <gtest/gtest.h>

#include <cerrno>
#include <string>

extern "C" {
#include "queue.h"
}

namespace {

constexpr std::uint64_t kSecond = 1000000000;
constexpr std::uint64_t kStart = 1000 * kSecond;

class QueueTest : public testing::Test {
protected:
    QueueTest() : full_(quorvix_queue_dropped_full()), old_(quorvix_queue_dropped_old()) {}
    ~QueueTest() override { quorvix_queue_clear(); }

    int push(std::int64_t command, std::uint64_t now = kStart, std::size_t extraBytes = 0) {
        quorvix_message* message = quorvix_message_for_command(command);
        if (extraBytes > 0) quorvix_message_set_string(message, "x", std::string(extraBytes, 'x').c_str());
        return quorvix_queue_push(message, now, &wasEmpty_);
    }
    /* The command of the oldest message, which is removed; -1 for none. */
    static int pop(std::uint64_t now = kStart) {
        const quorvix_message* front = quorvix_queue_front(now);
        if (!front) return -1;
        const int command = front->bytes[8 + 2 + 7];
        quorvix_queue_remove_front();
        return command;
    }
    std::uint64_t droppedFull() const { return quorvix_queue_dropped_full() - full_; }
    std::uint64_t droppedOld() const { return quorvix_queue_dropped_old() - old_; }

    bool wasEmpty_ = false;

private:
    std::uint64_t full_;
    std::uint64_t old_;
};

TEST_F(QueueTest, IsFirstInFirstOut) {
    push(1);
    EXPECT_TRUE(wasEmpty_);
    push(2);
    EXPECT_FALSE(wasEmpty_);
    EXPECT_EQ(pop(), 1);
    EXPECT_EQ(pop(), 2);
    EXPECT_EQ(pop(), -1);
    push(3);
    EXPECT_TRUE(wasEmpty_);
}

TEST_F(QueueTest, HoldsAtMost256AndDropsTheNewest) {
    for (int i = 0; i < 256; ++i) ASSERT_EQ(push(i % 100), 0);
    EXPECT_EQ(push(1), ENOBUFS);
    EXPECT_EQ(push(1), ENOBUFS);
    EXPECT_EQ(droppedFull(), 2u);
    EXPECT_EQ(quorvix_queue_length(), 256u);
    EXPECT_EQ(pop(), 0);
    EXPECT_EQ(push(1), 0);
}

TEST_F(QueueTest, HoldsAtMostOneMebibyte) {
    int pushed = 0;
    while (push(1, kStart, 65000) == 0) ++pushed;
    EXPECT_EQ(pushed, 16);
    EXPECT_EQ(droppedFull(), 1u);
    EXPECT_EQ(push(1), 0) << "a small one still fits";
}

TEST_F(QueueTest, DropsWhatIsTenSecondsOld) {
    push(1);
    push(2, kStart + kSecond);
    EXPECT_EQ(pop(kStart + 10 * kSecond), 2);
    EXPECT_EQ(droppedOld(), 1u);
}

TEST_F(QueueTest, KeepsWhatIsOneNanosecondYounger) {
    push(1);
    EXPECT_EQ(pop(kStart + 10 * kSecond - 1), 1);
    EXPECT_EQ(droppedOld(), 0u);
}

TEST_F(QueueTest, OldMessagesMakeRoomForNewOnes) {
    for (int i = 0; i < 256; ++i) push(1);
    EXPECT_EQ(push(2, kStart + 10 * kSecond), 0);
    EXPECT_TRUE(wasEmpty_);
    EXPECT_EQ(droppedOld(), 256u);
    EXPECT_EQ(pop(kStart + 10 * kSecond), 2);
}

TEST_F(QueueTest, WhatIsBeingSentIsNeverTakenAway) {
    for (int i = 0; i < 256; ++i) push(1);
    quorvix_message* front = quorvix_queue_front(kStart);
    EXPECT_EQ(push(2, kStart + 20 * kSecond), ENOBUFS);
    EXPECT_EQ(front->bytes[8 + 2 + 7], 1);
    quorvix_queue_keep_front();
    EXPECT_EQ(push(2, kStart + 20 * kSecond), 0);
}

TEST_F(QueueTest, ClearingCountsWhatWasNotSent) {
    push(1);
    push(2);
    quorvix_queue_clear();
    EXPECT_EQ(droppedOld(), 2u);
    EXPECT_EQ(quorvix_queue_length(), 0u);
}

}  // namespace
