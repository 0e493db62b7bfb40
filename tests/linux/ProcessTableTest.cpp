#include "platform/linux/ProcessTable.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <list>
#include <map>
#include <thread>

#include "platform/linux/ProcfsSource.h"
#include "platform/linux/TaskIteratorSource.h"
#include "tests/support/RecordingLog.h"
#include "tests/support/TemporaryFolder.h"

namespace quorvix::linuxos {
namespace {

std::vector<std::unique_ptr<ProcessSource>> sourcesOf(std::unique_ptr<ProcessSource> source) {
    std::vector<std::unique_ptr<ProcessSource>> sources;
    sources.push_back(std::move(source));
    return sources;
}

class FailingSource final : public ProcessSource {
public:
    int read(ProcessSamples&) override { return EPERM; }
};

TEST(ProcessTableTest, ASourceThatFailsGivesWayOnceWithALine) {
    std::vector<std::unique_ptr<ProcessSource>> sources;
    sources.push_back(std::make_unique<FailingSource>());
    sources.push_back(std::make_unique<ProcfsSource>());
    tests::RecordingLog log;
    ProcessTable table(std::move(sources), &log);
    EXPECT_EQ(table.freeze(), 0);
    EXPECT_EQ(table.freeze(), 0);
    EXPECT_GE(table.find(getpid()), 0);
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"platform: Process snapshots come from procfs: the kernel's task "
                                                     "iterator can't be used: Operation not permitted"}));
}

TEST(ProcessTableTest, ATableThatCannotBeReadIsEmpty) {
    ProcessTable table(sourcesOf(std::make_unique<ProcfsSource>("/nonexistent")), nullptr);
    EXPECT_EQ(table.freeze(), ENOENT);
    EXPECT_TRUE(table.processes().empty());
}

// --- against the real kernel --------------------------------------------------------------------------------------

// Burns processor time until the thread's own clock shows it.
void burn(std::uint64_t milliseconds) {
    timespec now{};
    do {
        std::atomic<int> rounds{20'000};
        while (--rounds > 0) {
        }
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    } while (static_cast<std::uint64_t>(now.tv_sec) * 1000 + static_cast<std::uint64_t>(now.tv_nsec) / 1'000'000 <
             milliseconds);
}

std::uint64_t threadClockNs() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(now.tv_nsec);
}

struct ThreadWork {
    QosClass qosClass;
    int policy;
    int nice;
};
constexpr std::array<ThreadWork, 6> kWorks{{{QosClass::maintenance, SCHED_IDLE, 0},
                                            {QosClass::background, SCHED_OTHER, 12},
                                            {QosClass::utility, SCHED_BATCH, 0},
                                            {QosClass::legacy, SCHED_OTHER, 0},
                                            {QosClass::userInitiated, SCHED_OTHER, -5},
                                            {QosClass::userInteractive, SCHED_RR, 0}}};
constexpr std::size_t kLegacy = 3;
static_assert(kWorks[kLegacy].qosClass == QosClass::legacy);
constexpr std::uint64_t kBurnMs = 300;

// What the kernel itself says that each thread of the child used, told through a pipe once all have burnt.
struct Burnt {
    std::array<std::uint64_t, kWorks.size()> classNs;
    std::uint64_t exitedNs;
    bool scheduled;  // whether each thread got the scheduling it asked for
};

class BurningChild {
public:
    BurningChild() {
        int fds[2];
        EXPECT_EQ(pipe2(fds, O_CLOEXEC), 0);
        pid_ = fork();
        if (pid_ == 0) work(fds[1]);
        close(fds[1]);
        EXPECT_EQ(read(fds[0], &burnt, sizeof burnt), ssize_t{sizeof burnt});
        close(fds[0]);
    }
    ~BurningChild() {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    BurningChild(const BurningChild&) = delete;
    BurningChild& operator=(const BurningChild&) = delete;

    std::int32_t pid() const { return pid_; }
    Burnt burnt{};

private:
    [[noreturn]] static void work(int report) {
        static Burnt result{};
        static std::atomic<int> done{0};
        result.scheduled = true;
        std::thread([] {
            burn(50);
            result.exitedNs = threadClockNs();
        }).join();
        for (std::size_t i = 0; i < kWorks.size(); ++i) {
            std::thread([i] {
                const ThreadWork& work = kWorks[i];
                sched_param parameters{};
                parameters.sched_priority = work.policy == SCHED_RR ? 1 : 0;
                const bool scheduled =
                    sched_setscheduler(0, work.policy, &parameters) == 0 &&
                    (work.nice == 0 || setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), work.nice) == 0);
                if (!scheduled) result.scheduled = false;
                burn(kBurnMs);
                result.classNs[i] = threadClockNs();
                ++done;
                for (;;) pause();
            }).detach();
        }
        while (done < static_cast<int>(kWorks.size())) usleep(1000);
        usleep(20'000);  // until every thread sleeps
        // This thread is of the class that it was born with.
        result.classNs[kLegacy] += threadClockNs();
        (void)!write(report, &result, sizeof result);
        for (;;) pause();
    }

    pid_t pid_ = -1;
};

double milliseconds(std::uint64_t nanoseconds) { return static_cast<double>(nanoseconds) / 1e6; }

void expectKnownWork(std::unique_ptr<ProcessSource> source) {
    BurningChild child;
    ASSERT_TRUE(child.burnt.scheduled) << "needs root";
    ProcessTable table(sourcesOf(std::move(source)), nullptr);
    ASSERT_EQ(table.freeze(), 0);
    const auto place = table.find(child.pid());
    ASSERT_GE(place, 0);
    const ResourceUsage usage = table.usage(static_cast<std::size_t>(place));
    const std::array<std::uint64_t, kWorks.size()> ticks{usage.maintenanceTime,   usage.backgroundTime,
                                                         usage.utilityTime,       usage.legacyTime,
                                                         usage.userInitiatedTime, usage.userInteractiveTime};
    for (std::size_t i = 0; i < kWorks.size(); ++i) {
        const double expected = milliseconds(child.burnt.classNs[i]);
        EXPECT_GE(expected, double{kBurnMs});
        EXPECT_NEAR(static_cast<double>(ticks[i]) / 24'000, expected, std::max(0.03 * expected, 5.0)) << "class " << i;
    }
    EXPECT_NEAR(static_cast<double>(usage.unspecifiedTime) / 24'000, milliseconds(child.burnt.exitedNs), 5.0);
}

TEST(KnownWorkTest, ProcfsGivesEachClassWhatItBurnt) { expectKnownWork(std::make_unique<ProcfsSource>()); }

TEST(KnownWorkTest, TheTaskIteratorGivesEachClassWhatItBurnt) {
    auto source = std::make_unique<TaskIteratorSource>();
    ProcessSamples samples;
    if (const int error = source->read(samples)) GTEST_SKIP() << "no task iterator: " << ErrorCode{error}.text();
    expectKnownWork(std::move(source));
}

class TaskIteratorTest : public testing::Test {
protected:
    void SetUp() override {
        ProcessSamples samples;
        if (const int error = TaskIteratorSource().read(samples)) {
            GTEST_SKIP() << "no task iterator: " << ErrorCode{error}.text();
        }
    }
};

const ProcessSample* findIn(const ProcessSamples& samples, std::int32_t pid) {
    for (const ProcessSample& process : samples.processes) {
        if (process.pid == pid) return &process;
    }
    return nullptr;
}

bool sameThreads(const ProcessSamples& left, const ProcessSample& a, const ProcessSamples& right,
                 const ProcessSample& b) {
    if (a.threadCount != b.threadCount) return false;
    for (std::uint32_t i = 0; i < a.threadCount; ++i) {
        const ThreadSample& x = left.threads[a.firstThread + i];
        const ThreadSample& y = right.threads[b.firstThread + i];
        if (x.tid != y.tid || x.qosClass != y.qosClass || x.startUnits != y.startUnits || x.runtimeNs != y.runtimeNs) {
            return false;
        }
    }
    return true;
}

// Whether a process did nothing between two readings. A thread on a processor shows its time at the next tick only,
// but what it takes and gives back of memory shows at once.
bool sameRecord(const ProcessSample& left, const ProcessSample& right) {
    return left.startUnits == right.startUnits && left.runtimeNs == right.runtimeNs &&
           left.majorFaults == right.majorFaults && left.diskBytesRead == right.diskBytesRead &&
           left.diskBytesWritten == right.diskBytesWritten && left.wiredBytes == right.wiredBytes &&
           left.residentBytes == right.residentBytes && left.footprintBytes == right.footprintBytes;
}

// Both ways of reading between two equal readings of the other: a process that did nothing in between must be the same
// in every field.
void expectTheSameInProcfs(ProcfsSource& procfs, std::int32_t expected) {
    TaskIteratorSource iterator;
    ProcessSamples before, files, after;
    ASSERT_EQ(iterator.read(before), 0);
    ASSERT_EQ(procfs.read(files), 0);
    ASSERT_EQ(iterator.read(after), 0);
    std::size_t compared = 0;
    for (const ProcessSample& process : before.processes) {
        const ProcessSample* const later = findIn(after, process.pid);
        const ProcessSample* const file = findIn(files, process.pid);
        const bool rested = later && sameRecord(process, *later) && sameThreads(before, process, after, *later);
        // The files of the first process may not be readable to us.
        if (!rested || process.pid == 1) continue;
        ASSERT_TRUE(file) << process.pid << " " << process.name.data();
        ++compared;
        SCOPED_TRACE(std::to_string(process.pid) + " " + process.name.data());
        EXPECT_STREQ(file->name.data(), process.name.data());
        EXPECT_EQ(file->isKernelThread, process.isKernelThread);
        EXPECT_EQ(file->startUnits, process.startUnits);
        EXPECT_EQ(file->runtimeNs, process.runtimeNs);
        EXPECT_EQ(file->majorFaults, process.majorFaults);
        EXPECT_EQ(file->diskBytesRead, process.diskBytesRead);
        EXPECT_EQ(file->diskBytesWritten, process.diskBytesWritten);
        EXPECT_EQ(file->wiredBytes, process.wiredBytes);
        EXPECT_EQ(file->residentBytes, process.residentBytes);
        EXPECT_EQ(file->footprintBytes, process.footprintBytes);
        EXPECT_TRUE(sameThreads(files, *file, before, process));
    }
    EXPECT_GE(compared, 10u);
    EXPECT_TRUE(findIn(before, expected));
}

TEST_F(TaskIteratorTest, EveryRestingProcessIsTheSameAsInProcfs) {
    BurningChild child;
    ProcfsSource procfs;
    expectTheSameInProcfs(procfs, child.pid());
}

// What procfs does not read again is the same all the same, also after threads ran, ended and began.
TEST_F(TaskIteratorTest, EveryRestingProcessIsTheSameInALaterTableOfProcfs) {
    std::list<BurningChild> children(1);
    ProcfsSource procfs;
    for (int round = 0; round < 4; ++round) {
        expectTheSameInProcfs(procfs, children.back().pid());
        ASSERT_EQ(setpriority(PRIO_PROCESS, static_cast<id_t>(children.front().pid()), round + 1), 0);
        std::thread([] { burn(2); }).join();
        if (round == 1) children.emplace_back();
    }
}

TEST_F(TaskIteratorTest, TablesThatAreTooSmallGrow) {
    ProcessSamples small, large;
    ASSERT_EQ(TaskIteratorSource({.processes = 1, .threads = 1}).read(small), 0);
    ASSERT_EQ(TaskIteratorSource().read(large), 0);
    EXPECT_TRUE(findIn(small, getpid()));
    EXPECT_NEAR(static_cast<double>(small.processes.size()), static_cast<double>(large.processes.size()), 20);
}

TEST_F(TaskIteratorTest, ALockedPageIsWired) {
    ProcessSamples samples;
    TaskIteratorSource source;
    ASSERT_EQ(source.read(samples), 0);
    const std::uint64_t before = findIn(samples, getpid())->wiredBytes;
    alignas(4096) static std::array<char, 8 * 4096> pages;
    ASSERT_EQ(syscall(SYS_mlock2, pages.data(), pages.size(), 0), 0);
    ASSERT_EQ(source.read(samples), 0);
    EXPECT_EQ(findIn(samples, getpid())->wiredBytes, before + pages.size());
    syscall(SYS_munlock, pages.data(), pages.size());
}

}  // namespace
}  // namespace quorvix::linuxos
