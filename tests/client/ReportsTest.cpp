#include "tests/client/support/ClientTest.h"

#include <cerrno>

namespace quorvix::test {
namespace {

using ReportsTest = ConnectedClientTest;

TEST_F(ReportsTest, StopIsTheseBytes) {
    ASSERT_EQ(quorvix_watching_stop(), 0);
    const std::string literal(
        "VEX1\x01\x00\x00\x00\x01\x07"
        "command\x02\x00\x00\x00\x00\x00\x00\x00",
        25);
    EXPECT_EQ(receiveBytes(peer_), literal);
}

TEST_F(ReportsTest, HangCarriesItsTimesThreadNameAndWish) {
    const quorvix_hang hang{"draw", 0x1122334455667788u, UINT64_MAX, -7, true};
    ASSERT_EQ(quorvix_report_hang(&hang), 0);
    EXPECT_EQ(receiveBytes(peer_), Wire()
                                       .int64("command", 3)
                                       .int64("startTime", 0x1122334455667788)
                                       .int64("endTime", -1)
                                       .int64("threadID", -7)
                                       .string("name", "draw")
                                       .boolean("saveReport", true)
                                       .bytes());
}

TEST_F(ReportsTest, ActivationBeginCarriesStateAndType) {
    const quorvix_activation_begin activation{42, "org.example.mail", 1234567890123u, 1, QUORVIX_ACTIVATION_RESUME};
    const std::uint64_t before = quorvix_wall_clock_now();
    ASSERT_EQ(quorvix_report_activation_begin(&activation), 0);
    const std::string bytes = receiveBytes(peer_);
    const std::uint64_t sentAt = Dictionary(bytes).uint64("vexStartLatency");
    EXPECT_GE(sentAt, before);
    EXPECT_LE(sentAt, quorvix_wall_clock_now());
    EXPECT_EQ(bytes, Wire()
                         .int64("command", 4)
                         .int64("pid", 42)
                         .string("bundle-id", "org.example.mail")
                         .uint64("startTime", 1234567890123u)
                         .uint64("vexStartLatency", sentAt)
                         .int64("app-activation-state", 1)
                         .int64("app-activation-type", 2)
                         .bytes());
}

TEST_F(ReportsTest, ActivationWithoutTimeBeginsNow) {
    const quorvix_activation_begin activation{42, "org.example.mail", 0, 1, QUORVIX_ACTIVATION_LAUNCH};
    ASSERT_EQ(quorvix_report_activation_begin(&activation), 0);
    const Dictionary message(receiveBytes(peer_));
    EXPECT_EQ(message.uint64("startTime"), message.uint64("vexStartLatency"));
}

TEST_F(ReportsTest, ActivationEndCarriesItsResult) {
    const quorvix_activation_end activation{42, "org.example.mail", 77, 2, 5};
    ASSERT_EQ(quorvix_report_activation_end(&activation), 0);
    EXPECT_EQ(receiveBytes(peer_), Wire()
                                       .int64("command", 5)
                                       .int64("pid", 42)
                                       .string("bundle-id", "org.example.mail")
                                       .uint64("endTime", 77)
                                       .int64("app-activation-state", 2)
                                       .int64("app-activation-result", 5)
                                       .bytes());
}

TEST_F(ReportsTest, FenceBeginAndEndCarryNameAndMoment) {
    const auto before = static_cast<std::int64_t>(quorvix_ticks_now());
    ASSERT_EQ(quorvix_fence_begin(-9), 0);
    ASSERT_EQ(quorvix_fence_end(INT64_MAX), 0);
    const std::string first = receiveBytes(peer_);
    const std::string second = receiveBytes(peer_);
    const std::int64_t began = Dictionary(first).int64("startTime");
    const std::int64_t ended = Dictionary(second).int64("endTime");
    EXPECT_LE(before, began);
    EXPECT_LE(began, ended);
    EXPECT_EQ(first, Wire().int64("command", 6).int64("name", -9).int64("startTime", began).bytes());
    EXPECT_EQ(second, Wire().int64("command", 7).int64("name", INT64_MAX).int64("endTime", ended).bytes());
}

TEST_F(ReportsTest, FenceBlownCarriesItsSpan) {
    const quorvix_fence_span span{5, 6};
    ASSERT_EQ(quorvix_fence_blown(&span), 0);
    EXPECT_EQ(receiveBytes(peer_), Wire().int64("command", 8).int64("startTime", 5).int64("endTime", 6).bytes());
}

TEST_F(ReportsTest, WithoutTextsNothingIsSent) {
    const quorvix_hang hang{nullptr, 1, 2, 3, false};
    EXPECT_EQ(quorvix_report_hang(&hang), EINVAL);
    EXPECT_EQ(quorvix_report_hang(nullptr), EINVAL);
    const quorvix_activation_begin begin{1, nullptr, 0, 0, 0};
    EXPECT_EQ(quorvix_report_activation_begin(&begin), EINVAL);
    const quorvix_activation_end end{1, nullptr, 0, 0, 0};
    EXPECT_EQ(quorvix_report_activation_end(&end), EINVAL);
    EXPECT_EQ(quorvix_fence_blown(nullptr), EINVAL);
    ASSERT_EQ(quorvix_fence_begin(1), 0);
    EXPECT_EQ(Dictionary(receiveBytes(peer_)).int64("command"), 6);
}

TEST(ReportsWithoutStartTest, AreRefused) {
    const quorvix_hang hang{"draw", 1, 2, 3, false};
    EXPECT_EQ(quorvix_report_hang(&hang), ENOTCONN);
    EXPECT_EQ(quorvix_fence_begin(1), ENOTCONN);
    EXPECT_EQ(quorvix_watching_start(), ENOTCONN);
    EXPECT_EQ(quorvix_watching_stop(), ENOTCONN);
}

TEST(WallClockTest, CountsFrom2001) {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    const std::uint64_t seconds = quorvix_wall_clock_now() / 1000;
    EXPECT_NEAR(static_cast<double>(seconds), static_cast<double>(now.tv_sec) - 978307200.0, 2.0);
}

}  // namespace
}  // namespace quorvix::test
