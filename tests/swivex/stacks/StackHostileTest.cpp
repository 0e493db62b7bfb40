#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <fstream>
#include <string>

#include "swivex/Stacks.h"
#include "tests/swivex/stacks/StackTestSupport.h"
#include "tests/swivex/stacks/TargetProcess.h"

// Processes in states that hold up whoever looks at them carelessly, by both routes.

namespace quorvix::swivex {
namespace {

using tests::TargetProcess;

class StacksOfProcess : public testing::TestWithParam<StackRoute> {
protected:
    void SetUp() override {
        if (const std::string why = tests::whyNot(GetParam()); !why.empty()) GTEST_SKIP() << why;
    }
    static bool stops() { return GetParam() == StackRoute::stopping; }
    static StackCapture capture(pid_t pid) { return captureStacks(pid, tests::inSeconds(20), true, GetParam()); }
};

INSTANTIATE_TEST_SUITE_P(EachRoute, StacksOfProcess, testing::Values(StackRoute::withoutStopping, StackRoute::stopping),
                         [](const testing::TestParamInfo<StackRoute>& route) {
                             return std::string(route.param == StackRoute::stopping ? "Stopping" : "WithoutStopping");
                         });

bool allAre(char state, pid_t pid) {
    const std::vector<pid_t> threads = tests::threadsOf(pid);
    return !threads.empty() &&
           std::all_of(threads.begin(), threads.end(), [&](pid_t tid) { return tests::stateOf(pid, tid) == state; });
}

TEST_P(StacksOfProcess, ThatIsStoppedAreThereAndItStaysStopped) {
    const TargetProcess target("stack_target_plain", {"chain", "3", "4", "spin"});
    ASSERT_TRUE(target.isReady());
    kill(target.pid(), SIGSTOP);
    ASSERT_TRUE(tests::waitUntil([&] { return allAre('T', target.pid()); }));
    const long before = tests::cpuTicks(target.pid());
    const StackCapture found = capture(target.pid());
    ASSERT_EQ(found.threads.size(), 3u);
    for (const ThreadStack& thread : found.threads) {
        tests::expectTruth(found, thread, target.truth().at(thread.tid));
        EXPECT_EQ(thread.state, 'T');
    }
    EXPECT_TRUE(tests::waitUntil([&] { return allAre('T', target.pid()); }));
    EXPECT_LE(tests::cpuTicks(target.pid()), before + 1);
    kill(target.pid(), SIGCONT);
    tests::expectRuns(target.pid());
}

TEST_P(StacksOfProcess, ThatIsTracedBySomebodyElseAreThereWhereNothingIsStopped) {
    const TargetProcess target("stack_target_plain", {"chain", "2", "4", "sleep"});
    ASSERT_TRUE(target.isReady());
    tests::waitUntilAsleep(target.pid(), 2);
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const pid_t tracer = fork();
    if (tracer == 0) {
        bool all = true;
        for (const pid_t tid : tests::threadsOf(target.pid())) {
            all = ptrace(PTRACE_SEIZE, tid, nullptr, nullptr) == 0 && all;
        }
        (void)!write(ends[1], all ? "y" : "n", 1);
        for (;;) pause();
    }
    char answer = 0;
    ASSERT_EQ(read(ends[0], &answer, 1), 1);
    ASSERT_EQ(answer, 'y');
    const StackCapture found = capture(target.pid());
    ASSERT_EQ(found.threads.size(), 2u);
    for (const ThreadStack& thread : found.threads) {
        if (stops()) {
            EXPECT_THAT(thread.problem, testing::HasSubstr("traced by another process"));
        } else {
            tests::expectTruth(found, thread, target.truth().at(thread.tid));
        }
    }
    kill(tracer, SIGKILL);
    waitpid(tracer, nullptr, 0);
    close(ends[0]);
    close(ends[1]);
}

TEST_P(StacksOfProcess, InUninterruptibleSleepAreThereOrSaidToBeMissing) {
    const TargetProcess target("stack_target_plain", {"vfork"});
    ASSERT_TRUE(target.isReady());
    ASSERT_TRUE(tests::waitUntil([&] { return allAre('D', target.pid()); }));
    const StackCapture found = capture(target.pid());
    ASSERT_EQ(found.threads.size(), 1u);
    EXPECT_EQ(found.threads[0].state, 'D');
    EXPECT_FALSE(found.threads[0].kernel.empty());
    EXPECT_EQ(found.threads[0].user.empty(), stops());
    EXPECT_EQ(found.threads[0].problem, stops() ? "sleeps uninterruptibly: can't be stopped" : "");
    EXPECT_TRUE(allAre('D', target.pid()));
}

TEST_P(StacksOfProcess, ThatHasEndedAreNone) {
    const pid_t child = fork();
    if (child == 0) _exit(0);
    ASSERT_TRUE(tests::waitUntil([&] { return tests::stateOf(child, child) == 'Z'; }));
    const StackCapture found = capture(child);
    EXPECT_EQ(found.problem, "the process has ended and waits for its parent");
    ASSERT_EQ(found.threads.size(), 1u);
    EXPECT_EQ(found.threads[0].state, 'Z');
    EXPECT_TRUE(found.threads[0].user.empty());
    waitpid(child, nullptr, 0);
    EXPECT_EQ(capture(child).problem, "no such process");
    EXPECT_EQ(capture(0).problem, "no such process");
    EXPECT_EQ(capture(-1).problem, "no such process");
}

TEST_P(StacksOfProcess, WhoseMainThreadHasEndedAreThoseOfTheOthers) {
    const TargetProcess target("stack_target_plain", {"mainless"});
    ASSERT_TRUE(target.isReady());
    ASSERT_TRUE(tests::waitUntil([&] { return tests::stateOf(target.pid(), target.pid()) == 'Z'; }));
    const StackCapture found = capture(target.pid());
    ASSERT_EQ(found.threads.size(), 2u);
    EXPECT_EQ(found.threads[0].problem, "has ended");
    tests::expectTruth(found, found.threads[1], target.truth().at(found.threads[1].tid));
}

TEST_P(StacksOfProcess, WithMoreThreadsThanAreKeptSayHowManyAreLeftOut) {
    const TargetProcess target("stack_target_plain", {"chain", "5000", "0", "sleep"});
    if (!target.isReady()) GTEST_SKIP() << "5000 threads can't be made here";
    tests::waitUntilAsleep(target.pid(), 5000);
    const StackCapture found = capture(target.pid());
    EXPECT_EQ(found.problem, "");
    EXPECT_EQ(found.threads.size(), kMostStacks);
    EXPECT_EQ(found.threadsLeftOut, 5000 - kMostStacks);
    for (const ThreadStack& thread : found.threads) {
        // On a loaded machine so many can't all be stopped one after the other.
        if (stops() && thread.problem == "no time left to stop it") continue;
        tests::expectTruth(found, thread, target.truth().at(thread.tid));
        if (HasFailure()) break;
    }
    EXPECT_EQ(found.threads.front().problem, "");
}

TEST(StacksWithoutStopping, OfMoreThreadsThanAreKeptHavePlacesInTheKernel) {
    if (const std::string why = tests::whyNot(StackRoute::withoutStopping); !why.empty()) GTEST_SKIP() << why;
    const TargetProcess target("stack_target_plain", {"chain", std::to_string(kMostStacks + 1), "0", "sleep"});
    if (!target.isReady()) GTEST_SKIP() << "so many threads can't be made here";
    const StackCapture found = captureStacks(target.pid(), tests::inSeconds(20), false, StackRoute::withoutStopping);
    EXPECT_EQ(found.threads.size(), kMostStacks);
    EXPECT_NE(found.kernelTextStart, 0U);
}

TEST_P(StacksOfProcess, WithAStackWhosePagesNeverComeAreNotWaitedFor) {
    const TargetProcess target("stack_target_plain", {"faultstack"});
    if (target.isImpossible()) GTEST_SKIP() << "no userfaultfd here";
    ASSERT_TRUE(target.isReady());
    tests::waitUntilAsleep(target.pid(), 2);
    const StackCapture found = capture(target.pid());
    EXPECT_EQ(found.problem, "");
    ASSERT_EQ(found.threads.size(), 2u);
    tests::expectTruth(found, found.threads[1], target.truth().at(found.threads[1].tid));
}

// A process may be frozen for as long as its machine runs.
class Freezer {
public:
    explicit Freezer(pid_t pid) {
        const std::string name = "quorvix-stacks-" + std::to_string(pid);
        for (const char* const root : {"/sys/fs/cgroup/freezer/", "/sys/fs/cgroup/unified/", "/sys/fs/cgroup/"}) {
            const std::string folder = root + name;
            if (mkdir(folder.c_str(), 0755) != 0) continue;
            folder_ = folder;
            for (const auto& [file, freeze, thaw] :
                 {std::tuple{"/freezer.state", "FROZEN", "THAWED"}, std::tuple{"/cgroup.freeze", "1", "0"}}) {
                if (access((folder + file).c_str(), W_OK) != 0 || !put("/cgroup.procs", std::to_string(pid)) ||
                    !put(file, freeze)) {
                    continue;
                }
                file_ = file;
                thaw_ = thaw;
                return;
            }
            rmdir(folder.c_str());
            folder_.clear();
        }
    }
    ~Freezer() { thaw(); }
    bool isFrozen() const { return !file_.empty(); }
    void thaw() {
        if (isFrozen()) put(file_, thaw_);
        file_.clear();
    }
    // Once nothing is in it any more.
    void remove() const {
        if (!folder_.empty()) tests::waitUntil([&] { return rmdir(folder_.c_str()) == 0; });
    }

private:
    bool put(const std::string& file, const std::string& text) const {
        std::ofstream out(folder_ + file);
        out << text << std::flush;
        return out.good();
    }

    std::string folder_;
    std::string file_;
    std::string thaw_;
};

TEST_P(StacksOfProcess, ThatIsFrozenDoNotHoldUp) {
    TargetProcess target("stack_target_plain", {"chain", "3", "4", "spin"});
    ASSERT_TRUE(target.isReady());
    Freezer freezer(target.pid());
    if (!freezer.isFrozen()) GTEST_SKIP() << "no control group can be made here";
    ASSERT_TRUE(tests::waitUntil([&] { return !allAre('R', target.pid()); }));
    ASSERT_TRUE(tests::waitUntil([&] { return allAre('D', target.pid()) || allAre('S', target.pid()); }));
    const StackCapture found = capture(target.pid());
    ASSERT_EQ(found.threads.size(), 3u);
    for (const ThreadStack& thread : found.threads) {
        if (stops() && thread.state == 'D') {
            EXPECT_EQ(thread.problem, "sleeps uninterruptibly: can't be stopped");
        } else {
            tests::expectTruth(found, thread, target.truth().at(thread.tid));
        }
    }
    freezer.thaw();
    tests::expectRuns(target.pid());
    target.end();
    freezer.remove();
}

}  // namespace
}  // namespace quorvix::swivex
