#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <atomic>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "swivex/Stacks.h"
#include "tests/swivex/stacks/StackTestSupport.h"
#include "tests/swivex/stacks/TargetProcess.h"

// What a capture does to the process that asks for it: nothing.

namespace quorvix::swivex {
namespace {

using tests::TargetProcess;
using Clock = std::chrono::steady_clock;

std::size_t openDescriptors() {
    std::size_t count = 0;
    DIR* const folder = opendir("/proc/self/fd");
    while (readdir(folder)) ++count;
    closedir(folder);
    return count;
}

// This process's children, ended or not.
std::vector<pid_t> children() {
    std::vector<pid_t> found;
    for (const pid_t tid : tests::threadsOf(getpid())) {
        std::ifstream file("/proc/self/task/" + std::to_string(tid) + "/children");
        for (pid_t child = 0; file >> child;) found.push_back(child);
    }
    return found;
}

class StackCaller : public testing::Test {
protected:
    void SetUp() override {
        if (const std::string why = tests::whyNot(StackRoute::best); !why.empty()) GTEST_SKIP() << why;
    }
};

TEST_F(StackCaller, HasNothingLeftOpen) {
    const TargetProcess target("stack_target_plain", {"chain", "4", "4", "sleep"});
    ASSERT_TRUE(target.isReady());
    const std::size_t before = openDescriptors();
    const std::vector<pid_t> childrenBefore = children();
    for (const StackRoute route : {StackRoute::best, StackRoute::stopping, StackRoute::withoutStopping}) {
        for (int i = 0; i < 5; ++i) {
            EXPECT_EQ(captureStacks(target.pid(), tests::inSeconds(10), true, route).threads.size(), 4u);
            (void)captureStacks(1 << 30, tests::inSeconds(10), true, route);
            (void)captureStacks(target.pid(), Clock::now(), true, route);
        }
    }
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_EQ(children(), childrenBefore);
}

TEST_F(StackCaller, IsToldWhenThereIsNoTime) {
    const StackCapture found = captureStacks(getpid(), Clock::now() - std::chrono::seconds(1), true);
    EXPECT_EQ(found.problem, "no time left");
    EXPECT_TRUE(found.threads.empty());
}

TEST_F(StackCaller, GetsItsOwnThreads) {
    const StackCapture found = captureStacks(getpid(), tests::inSeconds(10), true);
    EXPECT_EQ(found.problem, "");
    ASSERT_FALSE(found.threads.empty());
    EXPECT_EQ(found.threads[0].tid, getpid());
    // It waits for the worker, and so it is off the CPU.
    EXPECT_FALSE(found.threads[0].stopped);
    EXPECT_FALSE(found.threads[0].user.empty());
}

TEST_F(StackCaller, MayIgnoreItsChildren) {
    const TargetProcess target("stack_target_plain", {"chain", "4", "4", "sleep"});
    ASSERT_TRUE(target.isReady());
    const auto before = signal(SIGCHLD, SIG_IGN);
    const StackCapture found = captureStacks(target.pid(), tests::inSeconds(10), true);
    signal(SIGCHLD, before);
    EXPECT_EQ(found.problem, "");
    EXPECT_EQ(found.threads.size(), 4u);
}

TEST_F(StackCaller, MayWaitForAnyChildMeanwhile) {
    const TargetProcess target("stack_target_plain", {"chain", "4", "4", "sleep"});
    ASSERT_TRUE(target.isReady());
    std::atomic<bool> isDone = false;
    std::atomic<bool> isWaiting = false;
    std::thread reaper([&] {
        while (!isDone) {
            (void)waitpid(-1, nullptr, WNOHANG);
            isWaiting = true;
        }
    });
    // A sanitizer's thread must not be copied while it starts.
    while (!isWaiting) std::this_thread::yield();
    for (int i = 0; i < 10; ++i) {
        const StackCapture found = captureStacks(target.pid(), tests::inSeconds(10), true);
        EXPECT_EQ(found.problem, "");
        EXPECT_EQ(found.threads.size(), 4u);
    }
    isDone = true;
    reaper.join();
    EXPECT_TRUE(kill(target.pid(), 0) == 0);
}

TEST_F(StackCaller, MayHaveThreadsThatAllocate) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the address sanitizer's allocator can't be used in a copy of a process that allocates";
#endif
    const TargetProcess target("stack_target_plain", {"chain", "4", "4", "sleep"});
    ASSERT_TRUE(target.isReady());
    std::atomic<bool> isDone = false;
    std::vector<std::thread> busy;
    for (int i = 0; i < 3; ++i) {
        busy.emplace_back([&] {
            for (std::size_t size = 1; !isDone; size = size * 7 % 100'003) std::string(size, 'x').shrink_to_fit();
        });
    }
    for (int i = 0; i < 30; ++i) {
        const StackCapture found = captureStacks(target.pid(), tests::inSeconds(20), true);
        EXPECT_EQ(found.problem, "");
        EXPECT_EQ(found.threads.size(), 4u);
    }
    isDone = true;
    for (std::thread& thread : busy) thread.join();
}

// A worker that does not go on is as good as one that waits for a memory or a file that never comes.
TEST_F(StackCaller, GetsItsAnswerInTimeFromAWorkerThatHangs) {
    const TargetProcess target("stack_target_plain", {"chain", "1000", "20", "sleep"});
    ASSERT_TRUE(target.isReady());
    tests::waitUntilAsleep(target.pid(), 1000);
    const std::vector<pid_t> before = children();
    std::atomic<bool> isHung = false;
    std::thread hanger([&] {
        isHung = tests::waitUntil([&] {
            for (const pid_t child : children()) {
                if (std::find(before.begin(), before.end(), child) == before.end()) return kill(child, SIGSTOP) == 0;
            }
            return false;
        });
    });
    const Clock::time_point begin = Clock::now();
    const StackCapture found = captureStacks(target.pid(), begin + std::chrono::seconds(2), true);
    const Clock::duration took = Clock::now() - begin;
    hanger.join();
    ASSERT_TRUE(isHung);
    EXPECT_EQ(found.problem, "took too long");
    EXPECT_LT(took, std::chrono::seconds(10));  // a bound that holds on a busy machine too
    EXPECT_EQ(captureStacks(target.pid(), tests::inSeconds(20), true).problem, "");
    // What the kernel had not ended by then is reaped by a later one.
    EXPECT_TRUE(tests::waitUntil([&] {
        (void)captureStacks(target.pid(), Clock::now(), true);
        return children() == before;
    }));
}

TEST_F(StackCaller, LeavesNothingStoppedWhenItIsKilled) {
    const TargetProcess target("stack_target_plain", {"chain", "3", "4", "spin"});
    ASSERT_TRUE(target.isReady());
    for (int round = 0; round < 12; ++round) {
        const pid_t caller = fork();
        if (caller == 0) {
            for (;;) (void)captureStacks(target.pid(), tests::inSeconds(5), false, StackRoute::stopping);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10) + std::chrono::microseconds(round * 2917));
        kill(caller, SIGKILL);
        waitpid(caller, nullptr, 0);
        for (const pid_t tid : tests::threadsOf(target.pid())) {
            EXPECT_TRUE(tests::waitUntil([&] { return tests::stateOf(target.pid(), tid) == 'R'; }))
                << "round " << round;
        }
    }
    tests::expectRuns(target.pid());
}

}  // namespace
}  // namespace quorvix::swivex
