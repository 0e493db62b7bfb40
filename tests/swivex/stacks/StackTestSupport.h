#pragma once

#include <dirent.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "swivex/Stacks.h"
#include "swivex/stacks/ThreadIterator.h"
#include "tests/swivex/stacks/TargetProcess.h"

namespace quorvix::tests {

inline std::chrono::steady_clock::time_point inSeconds(int seconds) {
    return std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
}

// Why a route can't be had here; empty: it can.
inline std::string whyNot(swivex::StackRoute route) {
    if (geteuid() != 0) return "needs root";
    if (route == swivex::StackRoute::stopping) return {};
    const int error = swivex::stacks::ThreadIterator().load();
    return error == 0 ? std::string() : "the kernel's iterator can't be loaded: error " + std::to_string(error);
}

inline std::string temporaryFolder() {
    std::string name = "/tmp/quorvix-stacks-XXXXXX";
    return mkdtemp(name.data()) ? name : std::string();
}

inline char stateOf(pid_t pid, pid_t tid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/task/" + std::to_string(tid) + "/stat");
    std::string text;
    std::getline(file, text);
    const std::size_t at = text.rfind(')');
    return at == std::string::npos ? '?' : text[at + 2];
}

inline std::vector<pid_t> threadsOf(pid_t pid) {
    std::vector<pid_t> threads;
    DIR* const folder = opendir(("/proc/" + std::to_string(pid) + "/task").c_str());
    while (const dirent* const entry = folder ? readdir(folder) : nullptr) {
        if (entry->d_name[0] != '.') threads.push_back(std::atoi(entry->d_name));
    }
    if (folder) closedir(folder);
    return threads;
}

// Until condition() or for long: a test that waits in vain says so by what it expects next.
template <class Condition>
bool waitUntil(Condition condition) {
    for (int i = 0; i < 20'000; ++i) {
        if (condition()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
}

inline void waitUntilAsleep(pid_t pid, std::size_t count) {
    EXPECT_TRUE(waitUntil([&] {
        const std::vector<pid_t> threads = threadsOf(pid);
        for (const pid_t tid : threads) {
            if (stateOf(pid, tid) != 'S') return false;
        }
        return threads.size() == count;
    }));
}

inline long cpuTicks(pid_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    std::string text;
    std::getline(file, text);
    unsigned long user = 0;
    unsigned long system = 0;
    std::sscanf(text.c_str() + text.rfind(')') + 2, "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu", &user,
                &system);
    return static_cast<long>(user + system);
}

inline void expectRuns(pid_t pid) {
    const long before = cpuTicks(pid);
    EXPECT_TRUE(waitUntil([&] { return cpuTicks(pid) > before; }));
}

// The known frames stand in the stack one behind the other, behind few of the C library.
inline void expectTruth(const swivex::StackCapture& capture, const swivex::ThreadStack& thread,
                        const std::vector<TrueFrame>& truth) {
    SCOPED_TRACE("thread " + std::to_string(thread.tid) + ": " + thread.problem);
    ASSERT_FALSE(truth.empty());
    constexpr std::size_t kMostBefore = 8;
    std::size_t at = 0;
    while (at < thread.user.size() && thread.user[at].pc != truth[0].pc - 1) ++at;
    ASSERT_LE(at, kMostBefore) << "of " << thread.user.size() << " frames";
    ASSERT_GE(thread.user.size(), at + truth.size());
    for (std::size_t i = 0; i < truth.size(); ++i) {
        const swivex::UserFrame& frame = thread.user[at + i];
        EXPECT_EQ(frame.pc, truth[i].pc - 1) << "frame " << i;
        ASSERT_GE(frame.module, 0);
        const swivex::Module& module = capture.modules[static_cast<std::size_t>(frame.module)];
        EXPECT_EQ(frame.pc - module.loadBase, truth[i].address - 1) << "frame " << i;
        EXPECT_EQ(module.path.substr(module.path.rfind('/') + 1), truth[i].file);
        EXPECT_FALSE(module.buildId.empty());
        EXPECT_LE(module.start, frame.pc);
        EXPECT_LT(frame.pc, module.end);
    }
}

}  // namespace quorvix::tests
