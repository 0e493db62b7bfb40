#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "swivex/Stacks.h"
#include "tests/swivex/stacks/StackTestSupport.h"
#include "tests/swivex/stacks/TargetProcess.h"

// Stacks against the truth that the process tells of itself.

namespace quorvix::swivex {
namespace {

using tests::TargetProcess;
using tests::TrueFrame;

struct Way {
    const char* name;
    StackRoute route;
    const char* program;
};

class StackTruth : public testing::TestWithParam<Way> {
protected:
    void SetUp() override {
        if (const std::string why = tests::whyNot(GetParam().route); !why.empty()) GTEST_SKIP() << why;
    }
    StackCapture capture(const TargetProcess& target) {
        return captureStacks(target.pid(), tests::inSeconds(10), true, GetParam().route);
    }
};

TEST_P(StackTruth, OfFiftyThreadsThatSleep) {
    const TargetProcess target(GetParam().program, {"chain", "50", "8", "sleep"});
    ASSERT_TRUE(target.isReady());
    tests::waitUntilAsleep(target.pid(), 50);
    const StackCapture found = capture(target);
    EXPECT_EQ(found.problem, "");
    ASSERT_EQ(found.threads.size(), 50u);
    EXPECT_EQ(found.threadsLeftOut, 0u);
    EXPECT_EQ(found.threads.front().tid, target.pid());
    for (const ThreadStack& thread : found.threads) {
        tests::expectTruth(found, thread, target.truth().at(thread.tid));
        EXPECT_EQ(thread.state, 'S');
        EXPECT_EQ(thread.stopped, GetParam().route == StackRoute::stopping);
        EXPECT_FALSE(thread.kernel.empty());
    }
}

TEST_P(StackTruth, InASignalHandler) {
    const TargetProcess target(GetParam().program, {"chain", "3", "5", "signal"});
    ASSERT_TRUE(target.isReady());
    tests::waitUntilAsleep(target.pid(), 3);
    const StackCapture found = capture(target);
    ASSERT_EQ(found.threads.size(), 3u);
    for (const ThreadStack& thread : found.threads) tests::expectTruth(found, thread, target.truth().at(thread.tid));
}

INSTANTIATE_TEST_SUITE_P(EachBuild, StackTruth,
                         testing::Values(Way{"WithoutStopping", StackRoute::withoutStopping, "stack_target_plain"},
                                         Way{"Stopping", StackRoute::stopping, "stack_target_plain"},
                                         Way{"FramePointers", StackRoute::best, "stack_target_frame_pointers"},
                                         Way{"Stripped", StackRoute::best, "stack_target_stripped"},
                                         Way{"StrippedStopping", StackRoute::stopping, "stack_target_stripped"},
                                         Way{"FixedAddress", StackRoute::best, "stack_target_fixed"},
                                         Way{"OnlyFramePointers", StackRoute::best, "stack_target_bare"}),
                         [](const testing::TestParamInfo<Way>& way) { return std::string(way.param.name); });

class Stacks : public testing::Test {
protected:
    void SetUp() override {
        if (const std::string why = tests::whyNot(StackRoute::best); !why.empty()) GTEST_SKIP() << why;
    }
};

TEST_F(Stacks, OfThreadsThatRunAreTakenByStoppingThem) {
    const TargetProcess target("stack_target_plain", {"chain", "2", "4", "spin"});
    ASSERT_TRUE(target.isReady());
    const StackCapture found = captureStacks(target.pid(), tests::inSeconds(20), true);
    ASSERT_EQ(found.threads.size(), 2u);
    for (const ThreadStack& thread : found.threads) {
        tests::expectTruth(found, thread, target.truth().at(thread.tid));
        EXPECT_EQ(thread.state, 'R');
    }
    tests::expectRuns(target.pid());
}

TEST_F(Stacks, WithoutNamesHoldAddressesOnly) {
    const TargetProcess target("stack_target_plain", {"chain", "2", "4", "sleep"});
    ASSERT_TRUE(target.isReady());
    tests::waitUntilAsleep(target.pid(), 2);
    const StackCapture found = captureStacks(target.pid(), tests::inSeconds(10), false);
    ASSERT_EQ(found.threads.size(), 2u);
    for (const ThreadStack& thread : found.threads) {
        ASSERT_FALSE(thread.kernel.empty());
        for (const KernelFrame& frame : thread.kernel) {
            EXPECT_EQ(frame.symbol, "");
            EXPECT_GT(frame.address, found.kernelTextStart);
        }
    }
    EXPECT_NE(found.kernelTextStart, 0u);
}

TEST_F(Stacks, OfADeletedProgram) {
    const std::string folder = tests::temporaryFolder();
    const std::string copy = folder + "/program";
    ASSERT_EQ(std::system(("cp " QUORVIX_STACK_TARGETS "/stack_target_plain " + copy).c_str()), 0);
    const TargetProcess target(copy, {"chain", "1", "4", "sleep"});
    ASSERT_TRUE(target.isReady());
    tests::waitUntilAsleep(target.pid(), 1);
    ASSERT_EQ(std::system(("rm -r " + folder).c_str()), 0);
    const StackCapture found = captureStacks(target.pid(), tests::inSeconds(10), true);
    ASSERT_EQ(found.threads.size(), 1u);
    tests::expectTruth(found, found.threads[0], target.truth().at(target.pid()));
}

// As in a container: the program's path leads to nothing here.
TEST_F(Stacks, OfAProgramThatOnlyItsOwnFileSystemHas) {
    const std::string script = "mount -t tmpfs none /mnt && cp " QUORVIX_STACK_TARGETS
                               "/stack_target_plain /mnt/only-here && exec /mnt/only-here chain 1 4 sleep";
    const TargetProcess target("/usr/bin/unshare", {"-m", "sh", "-c", script});
    if (!target.isReady()) GTEST_SKIP() << "no mount namespace can be made here";
    tests::waitUntilAsleep(target.pid(), 1);
    ASSERT_NE(access("/mnt/only-here", F_OK), 0);
    const StackCapture found = captureStacks(target.pid(), tests::inSeconds(10), true);
    ASSERT_EQ(found.threads.size(), 1u);
    tests::expectTruth(found, found.threads[0], target.truth().at(target.pid()));
}

TEST_F(Stacks, AreWholeUpToWhatIsKept) {
    const TargetProcess target("stack_target_plain", {"chain", "1", "120", "sleep"});
    ASSERT_TRUE(target.isReady());
    tests::waitUntilAsleep(target.pid(), 1);
    const StackCapture found = captureStacks(target.pid(), tests::inSeconds(10), true);
    ASSERT_EQ(found.threads.size(), 1u);
    tests::expectTruth(found, found.threads[0], target.truth().at(target.pid()));
    EXPECT_EQ(found.threads[0].problem, "");
    EXPECT_LT(found.threads[0].user.size(), kMostFrames);
}

TEST_F(Stacks, OfManyMoreFramesThanAreKeptHoldTheInnermost) {
    const TargetProcess target("stack_target_plain", {"chain", "1", "250", "sleep"});
    ASSERT_TRUE(target.isReady());
    tests::waitUntilAsleep(target.pid(), 1);
    const StackCapture found = captureStacks(target.pid(), tests::inSeconds(10), true);
    ASSERT_EQ(found.threads.size(), 1u);
    EXPECT_EQ(found.threads[0].user.size(), kMostFrames);
    EXPECT_EQ(found.threads[0].problem, "deeper than what is kept");
    std::vector<TrueFrame> truth = target.truth().at(target.pid());
    ASSERT_GT(truth.size(), kMostFrames);
    truth.resize(kMostFrames - 8);
    tests::expectTruth(found, found.threads[0], truth);
}

}  // namespace
}  // namespace quorvix::swivex
