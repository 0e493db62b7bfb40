#include "platform/linux/CpuTimeLedger.h"

#include <gtest/gtest.h>

#include <random>

namespace quorvix::linuxos {
namespace {

struct Thread {
    std::int32_t tid;
    QosClass qosClass;
    std::uint64_t runtimeNs;
    std::uint64_t startUnits = 1;
};

struct Process {
    std::int32_t pid;
    std::uint64_t runtimeNs;
    std::vector<Thread> threads;
    std::uint64_t startUnits = 1;
    std::uint64_t userShare = 0;
    std::uint64_t systemShare = 0;
};

class CpuTimeLedgerTest : public testing::Test {
protected:
    const CpuTimes& take(const std::vector<Process>& processes) {
        ProcessSamples samples;
        for (const Process& process : processes) {
            ProcessSample sample{};
            sample.pid = process.pid;
            sample.startUnits = process.startUnits;
            sample.runtimeNs = process.runtimeNs;
            sample.userShare = process.userShare;
            sample.systemShare = process.systemShare;
            sample.firstThread = static_cast<std::uint32_t>(samples.threads.size());
            sample.threadCount = static_cast<std::uint32_t>(process.threads.size());
            for (const Thread& thread : process.threads) {
                samples.threads.push_back({thread.tid, thread.qosClass, thread.startUnits, thread.runtimeNs});
            }
            samples.processes.push_back(sample);
        }
        samples.sort();
        ledger_.update(samples);
        return ledger_.times().front();
    }
    static std::uint64_t timeAt(const CpuTimes& times, QosClass qosClass) {
        return times.classNs[static_cast<std::size_t>(qosClass)];
    }

    CpuTimeLedger ledger_;
};

TEST_F(CpuTimeLedgerTest, EachThreadsTimeGoesToItsClass) {
    const auto& times = take({{5, 70, {{5, QosClass::legacy, 30}, {6, QosClass::background, 40}}}});
    EXPECT_EQ(timeAt(times, QosClass::legacy), 30u);
    EXPECT_EQ(timeAt(times, QosClass::background), 40u);
    EXPECT_EQ(timeAt(times, QosClass::unspecified), 0u);
    EXPECT_EQ(times.userNs + times.systemNs, 70u);
}

TEST_F(CpuTimeLedgerTest, AnIntervalGoesToTheClassThatTheThreadIsInNow) {
    take({{5, 30, {{5, QosClass::legacy, 30}}}});
    const auto& times = take({{5, 45, {{5, QosClass::utility, 45}}}});
    EXPECT_EQ(timeAt(times, QosClass::legacy), 30u);
    EXPECT_EQ(timeAt(times, QosClass::utility), 15u);
}

TEST_F(CpuTimeLedgerTest, WhatAThreadUsedAfterTheLastTableAndBeforeItsEndIsUnspecified) {
    take({{5, 70, {{5, QosClass::legacy, 30}, {6, QosClass::background, 40}}}});
    const auto& times = take({{5, 78, {{5, QosClass::legacy, 31}}}});
    EXPECT_EQ(timeAt(times, QosClass::legacy), 31u);
    EXPECT_EQ(timeAt(times, QosClass::background), 40u);
    EXPECT_EQ(timeAt(times, QosClass::unspecified), 7u);
}

TEST_F(CpuTimeLedgerTest, ThreadsThatWereNeverSeenAreUnspecified) {
    EXPECT_EQ(timeAt(take({{5, 100, {{5, QosClass::legacy, 30}}}}), QosClass::unspecified), 70u);
}

TEST_F(CpuTimeLedgerTest, AReusedProcessIdStartsAnew) {
    take({{5, 100, {{5, QosClass::legacy, 100}}, 1}});
    const auto& times = take({{5, 7, {{5, QosClass::utility, 7, 2}}, 2}});
    EXPECT_EQ(timeAt(times, QosClass::legacy), 0u);
    EXPECT_EQ(timeAt(times, QosClass::utility), 7u);
    EXPECT_EQ(times.totalNs(), 7u);
}

TEST_F(CpuTimeLedgerTest, AReusedThreadIdIsANewThread) {
    take({{5, 130, {{5, QosClass::legacy, 30}, {6, QosClass::background, 100, 1}}}});
    const auto& times = take({{5, 135, {{5, QosClass::legacy, 30}, {6, QosClass::background, 5, 2}}}});
    EXPECT_EQ(timeAt(times, QosClass::background), 105u);
    EXPECT_EQ(timeAt(times, QosClass::unspecified), 0u);
}

TEST_F(CpuTimeLedgerTest, AProcessThatWasMissingOnceIsForgotten) {
    take({{5, 100, {{5, QosClass::legacy, 100}}}, {9, 1, {}}});
    take({{9, 1, {}}});
    const auto& times = take({{5, 100, {{5, QosClass::utility, 100}}}, {9, 1, {}}});
    EXPECT_EQ(timeAt(times, QosClass::legacy), 0u);
    EXPECT_EQ(timeAt(times, QosClass::utility), 100u);
}

TEST_F(CpuTimeLedgerTest, AThreadThatRunsWhileItIsReadGivesNothingNegative) {
    // The sum was read before the thread's own time.
    const CpuTimes first = take({{5, 90, {{5, QosClass::legacy, 95}}}});
    EXPECT_EQ(timeAt(first, QosClass::unspecified), 0u);
    EXPECT_EQ(first.totalNs(), 95u);
    EXPECT_EQ(take({{5, 94, {{5, QosClass::legacy, 95}}}}).totalNs(), 95u);
}

TEST_F(CpuTimeLedgerTest, TheSumIsDividedAsTheTicksWere) {
    const auto& times = take({{5, 1000, {}, 1, 3, 1}});
    EXPECT_EQ(times.userNs, 750u);
    EXPECT_EQ(times.systemNs, 250u);
}

TEST_F(CpuTimeLedgerTest, NeitherUserNorSystemTimeShrinksWhenTheRatioMoves) {
    take({{5, 1000, {}, 1, 3, 1}});
    const CpuTimes toSystem = take({{5, 1100, {}, 1, 3, 3}});
    EXPECT_EQ(toSystem.userNs, 750u);
    EXPECT_EQ(toSystem.systemNs, 350u);
    const CpuTimes toUser = take({{5, 1200, {}, 1, 100, 3}});
    EXPECT_EQ(toUser.userNs, 850u);
    EXPECT_EQ(toUser.systemNs, 350u);
}

TEST_F(CpuTimeLedgerTest, ALifeOfYearsDividesWithoutOverflow) {
    constexpr std::uint64_t kTenYearsNs = 10ull * 365 * 86400 * 1'000'000'000;
    const auto& times = take({{5, 8 * kTenYearsNs, {}, 1, kTenYearsNs, kTenYearsNs}});
    EXPECT_EQ(times.userNs, 4 * kTenYearsNs);
}

// Threads that come, go, change their class and run in any way: no counter ever shrinks, and the classes are the whole.
TEST_F(CpuTimeLedgerTest, NothingEverRunsBackwards) {
    for (std::uint32_t seed = 1; seed <= 50; ++seed) {
        std::mt19937 random(seed);
        Process process{5, 0, {{5, QosClass::legacy, 0}}, 1, 1, 1};
        std::int32_t nextThread = 6;
        std::uint64_t exitedNs = 0;
        ledger_ = {};
        CpuTimes before;
        for (int step = 0; step < 100; ++step) {
            for (Thread& thread : process.threads) {
                thread.runtimeNs += random() % 1000;
                if (random() % 4 == 0) thread.qosClass = static_cast<QosClass>(1 + random() % 6);
            }
            if (random() % 3 == 0) process.threads.push_back({nextThread++, QosClass::utility, random() % 1000});
            if (process.threads.size() > 1 && random() % 3 == 0) {
                exitedNs += process.threads.back().runtimeNs + random() % 100;
                process.threads.pop_back();
            }
            process.userShare += random() % 5;
            process.systemShare += random() % 5;
            process.runtimeNs = exitedNs;
            for (const Thread& thread : process.threads) process.runtimeNs += thread.runtimeNs;
            const CpuTimes now = take({process});
            for (std::size_t i = 0; i < kQosClassCount; ++i) {
                ASSERT_GE(now.classNs[i], before.classNs[i]) << "seed " << seed << " step " << step;
            }
            ASSERT_GE(now.userNs, before.userNs) << "seed " << seed << " step " << step;
            ASSERT_GE(now.systemNs, before.systemNs) << "seed " << seed << " step " << step;
            ASSERT_EQ(now.totalNs(), process.runtimeNs) << "seed " << seed << " step " << step;
            ASSERT_EQ(now.userNs + now.systemNs, now.totalNs());
            before = now;
        }
    }
}

}  // namespace
}  // namespace quorvix::linuxos
