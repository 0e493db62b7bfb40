#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "platform/linux/ProcessQueries.h"
#include "platform/linux/ProcfsSource.h"
#include "platform/linux/TaskIteratorSource.h"
#include "platform/sim/SimProcesses.h"

namespace quorvix::process_table_contract {
namespace {

// A real process that does nothing until it is ended.
class RealProcesses {
public:
    ~RealProcesses() {
        while (!children_.empty()) end(children_.back());
    }
    std::int32_t start() {
        const pid_t child = fork();
        if (child == 0) {
            for (;;) pause();
        }
        children_.push_back(child);
        return child;
    }
    void end(std::int32_t pid) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        std::erase(children_, pid);
    }

private:
    std::vector<std::int32_t> children_;
};

template <class Source>
struct RealWorld : RealProcesses {
    static linuxos::LinuxProcessQueries::Sources source() {
        linuxos::LinuxProcessQueries::Sources sources;
        sources.push_back(std::make_unique<Source>());
        return sources;
    }
    linuxos::LinuxProcessQueries processes{source()};
};

struct ProcfsWorld : RealWorld<linuxos::ProcfsSource> {};

struct TaskIteratorWorld : RealWorld<linuxos::TaskIteratorSource> {
    // Where the kernel has no iterator, or this is not root: said as skipped, never as passed.
    static std::string missing() {
        linuxos::ProcessSamples samples;
        const int error = linuxos::TaskIteratorSource().read(samples);
        return error == 0 ? "" : "the task iterator can't be used: " + ErrorCode{error}.text();
    }
};

struct SimWorld {
    std::int32_t start() {
        const std::int32_t pid = next_++;
        processes.tasks.push_back({.pid = pid, .name = "contract_tests"});
        return pid;
    }
    void end(std::int32_t pid) {
        for (auto& task : processes.tasks) {
            if (task.pid == pid) task.usageFails = true;
        }
        std::erase_if(processes.tasks, [&](const auto& task) { return task.pid == pid; });
    }
    sim::SimProcesses processes;

private:
    std::int32_t next_ = 10;
};

template <class World>
class ProcessTableContract : public testing::Test {
protected:
    void SetUp() override {
        if constexpr (requires { World::missing(); }) {
            if (const std::string missing = World::missing(); !missing.empty()) GTEST_SKIP() << missing;
        }
    }
    std::vector<std::int32_t> list() {
        const std::int32_t bytes = world_.processes.listAllPids(nullptr, 0);
        EXPECT_GT(bytes, 0);
        std::vector<std::int32_t> pids(static_cast<std::size_t>(bytes) / sizeof(std::int32_t));
        EXPECT_EQ(world_.processes.listAllPids(pids.data(), bytes), bytes);
        return pids;
    }
    bool lists(std::int32_t pid) {
        const auto pids = list();
        return std::find(pids.begin(), pids.end(), pid) != pids.end();
    }

    World world_;
};

using Worlds = testing::Types<ProcfsWorld, TaskIteratorWorld, SimWorld>;
TYPED_TEST_SUITE(ProcessTableContract, Worlds);

TYPED_TEST(ProcessTableContract, AProcessIsListedAndAnswers) {
    const std::int32_t pid = this->world_.start();
    EXPECT_TRUE(this->lists(pid));
    ResourceUsage usage;
    EXPECT_TRUE(this->world_.processes.resourceUsage(pid, usage));
    std::array<char, 32> name;
    const auto length = this->world_.processes.processName(pid, name);
    ASSERT_TRUE(length);
    EXPECT_GT(*length, 0u);
    EXPECT_EQ(name[*length], '\0');
}

TYPED_TEST(ProcessTableContract, AProcessThatEndedIsNotInTheNextTable) {
    const std::int32_t pid = this->world_.start();
    this->world_.start();
    EXPECT_TRUE(this->lists(pid));
    this->world_.end(pid);
    EXPECT_FALSE(this->lists(pid));
    ResourceUsage usage;
    const auto queried = this->world_.processes.resourceUsage(pid, usage);
    ASSERT_FALSE(queried);
    EXPECT_EQ(queried.error().value, ESRCH);
    std::array<char, 32> name;
    EXPECT_FALSE(this->world_.processes.processName(pid, name));
}

TYPED_TEST(ProcessTableContract, FillsAtMostTheBuffer) {
    for (int i = 0; i < 3; ++i) this->world_.start();
    const auto all = this->list();
    std::array<std::int32_t, 4> pids{-7, -7, -7, -7};
    EXPECT_EQ(this->world_.processes.listAllPids(pids.data(), 8), 8);
    EXPECT_EQ(pids, (std::array<std::int32_t, 4>{all[0], all[1], -7, -7}));
}

TYPED_TEST(ProcessTableContract, ThereIsNoProcessZero) {
    this->world_.start();
    EXPECT_FALSE(this->lists(0));
    std::array<char, 32> name;
    const auto queried = this->world_.processes.processName(0, name);
    ASSERT_FALSE(queried);
    EXPECT_EQ(queried.error().value, ESRCH);
}

TYPED_TEST(ProcessTableContract, ANameIsCutToTheBuffer) {
    const std::int32_t pid = this->world_.start();
    this->list();
    std::array<char, 32> whole;
    ASSERT_TRUE(this->world_.processes.processName(pid, whole));
    std::array<char, 4> cut;
    const auto length = this->world_.processes.processName(pid, cut);
    ASSERT_TRUE(length);
    EXPECT_EQ(*length, 3u);
    EXPECT_EQ(std::string(cut.data()), std::string(whole.data()).substr(0, 3));
}

}  // namespace
}  // namespace quorvix::process_table_contract
