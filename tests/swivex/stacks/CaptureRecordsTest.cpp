#include "swivex/stacks/CaptureRecords.h"

#include <gtest/gtest.h>

#include <random>

namespace quorvix::swivex::stacks {
namespace {

StackCapture someCapture() {
    StackCapture capture;
    capture.problem = "p";
    capture.kernelProblem = "k";
    capture.zeroStopProblem = "z";
    capture.threadsLeftOut = 7;
    capture.kernelTextStart = 0xffffffff81000000;
    return capture;
}

ThreadStack someThread(pid_t tid) {
    ThreadStack thread;
    thread.tid = tid;
    thread.name = std::string("a\0b", 3);
    thread.state = 'S';
    thread.stopped = true;
    thread.stopTime = std::chrono::nanoseconds(12345);
    thread.kernel = {{0xffffffff81000010, "do_it+0x10/0x20"}, {1, ""}};
    thread.user = {{0x1234, -1}};
    thread.problem = "not yet";
    return thread;
}

void writeAll(CaptureWriter& writer) {
    writer.writeSummary(someCapture());
    writer.writeThread(0, someThread(10));
    writer.writeThread(1, someThread(11));
    writer.writeModule({1, 2, 3, -4, 5, "/lib/a.so", {9, 8, 7}});
    ThreadStack unwound = someThread(10);
    unwound.user = {{0x1234, 0}, {0x5678, -1}};
    unwound.problem.clear();
    writer.writeFrames(0, unwound);
}

TEST(CaptureRecords, AreReadAsWritten) {
    RecordRegion region;
    ASSERT_TRUE(region.isMapped());
    CaptureWriter writer(region);
    writeAll(writer);
    writer.writeEnd();
    const ReadCapture read = readCapture(region.published());
    EXPECT_TRUE(read.isComplete);
    const StackCapture& capture = read.capture;
    EXPECT_EQ(capture.problem, "p");
    EXPECT_EQ(capture.kernelProblem, "k");
    EXPECT_EQ(capture.zeroStopProblem, "z");
    EXPECT_EQ(capture.threadsLeftOut, 7u);
    EXPECT_EQ(capture.kernelTextStart, 0xffffffff81000000u);
    ASSERT_EQ(capture.modules.size(), 1u);
    EXPECT_EQ(capture.modules[0], (Module{1, 2, 3, -4, 5, "/lib/a.so", {9, 8, 7}}));
    ASSERT_EQ(capture.threads.size(), 2u);
    const ThreadStack& first = capture.threads[0];
    EXPECT_EQ(first.tid, 10);
    EXPECT_EQ(first.name, std::string("a\0b", 3));
    EXPECT_EQ(first.state, 'S');
    EXPECT_TRUE(first.stopped);
    EXPECT_EQ(first.stopTime, std::chrono::nanoseconds(12345));
    EXPECT_EQ(first.kernel, someThread(10).kernel);
    EXPECT_EQ(first.user, (std::vector<UserFrame>{{0x1234, 0}, {0x5678, -1}}));
    EXPECT_EQ(first.problem, "");
    // Its frames never came: what was known before stays.
    EXPECT_EQ(capture.threads[1].user, (std::vector<UserFrame>{{0x1234, -1}}));
    EXPECT_EQ(capture.threads[1].problem, "not yet");
}

TEST(CaptureRecords, AreIncompleteWithoutTheirEnd) {
    RecordRegion region;
    CaptureWriter writer(region);
    writeAll(writer);
    const std::vector<std::byte> bytes = region.published();
    EXPECT_FALSE(readCapture(bytes).isComplete);
    // Cut at any byte, whole records count and nothing else.
    std::size_t threads = 0;
    for (std::size_t size = 0; size <= bytes.size(); ++size) {
        const ReadCapture read = readCapture(std::span(bytes).first(size));
        EXPECT_FALSE(read.isComplete);
        EXPECT_GE(read.capture.threads.size(), threads);
        threads = read.capture.threads.size();
    }
    EXPECT_EQ(threads, 2u);
}

TEST(CaptureRecords, OfAnybodyAreConsistent) {
    RecordRegion region;
    CaptureWriter writer(region);
    writeAll(writer);
    writer.writeEnd();
    const std::vector<std::byte> sound = region.published();
    const unsigned seed = testing::UnitTest::GetInstance()->random_seed() + 1u;
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    for (int round = 0; round < 20'000; ++round) {
        std::vector<std::byte> bytes = sound;
        for (unsigned i = 0; i < 1 + random() % 4; ++i)
            bytes[random() % bytes.size()] = static_cast<std::byte>(random());
        const ReadCapture read = readCapture(bytes);
        for (const ThreadStack& thread : read.capture.threads) {
            ASSERT_LE(thread.user.size(), kMostFrames);
            for (const UserFrame& frame : thread.user) {
                ASSERT_GE(frame.module, -1);
                ASSERT_LT(frame.module, static_cast<int>(read.capture.modules.size()));
            }
        }
    }
}

TEST(CaptureRecords, OfNoModuleAreRefused) {
    RecordRegion region;
    CaptureWriter writer(region);
    writer.writeThread(0, someThread(10));
    ThreadStack thread = someThread(10);
    thread.user = {{1, 0}};
    writer.writeFrames(0, thread);
    writer.writeEnd();
    const ReadCapture read = readCapture(region.published());
    EXPECT_FALSE(read.isComplete);
    ASSERT_EQ(read.capture.threads.size(), 1u);
    EXPECT_EQ(read.capture.threads[0].user, (std::vector<UserFrame>{{0x1234, -1}}));
}

TEST(CaptureRecords, EndWhereThePlaceDoes) {
    RecordRegion region;
    const std::vector<std::byte> large(1 << 20);
    std::size_t appended = 0;
    while (region.append(large)) ++appended;
    EXPECT_EQ(appended, 31u);
    EXPECT_EQ(region.published().size(), appended << 20);
    EXPECT_TRUE(region.append(std::span(large).first(1000)));
}

}  // namespace
}  // namespace quorvix::swivex::stacks
