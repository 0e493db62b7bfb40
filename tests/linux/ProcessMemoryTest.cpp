#include "platform/linux/ProcessMemory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <set>

#include "platform/linux/HostStatistics.h"
#include "platform/linux/ProcfsText.h"
#include "platform/linux/TextFile.h"
#include "tests/support/TemporaryFolder.h"

namespace quorvix::linuxos {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(Statm, AnonymousPagesAreThoseNotSharedWithFiles) {
    const StatmText statm = parseStatm("1000 300 120 10 0 200 0\n");
    EXPECT_TRUE(statm.hasMemory);
    EXPECT_EQ(statm.anonymousPages, 180u);
    EXPECT_EQ(parseStatm("1000 100 120 1 0 2 0").anonymousPages, 0u) << "counters are not read at one moment";
}

TEST(Statm, KernelThreadsHaveNoMemory) {
    EXPECT_FALSE(parseStatm("0 0 0 0 0 0 0\n").hasMemory);
    EXPECT_FALSE(parseStatm("").hasMemory);
    EXPECT_FALSE(parseStatm("12").hasMemory);
    EXPECT_FALSE(parseStatm("x y z").hasMemory);
}

// A made-up /proc.
class ScriptedProc : public testing::Test {
protected:
    ScriptedProc() { write("meminfo", "SwapTotal: 100 kB\nSwapFree: 100 kB\n"); }

    void write(const std::string& name, const std::string& text) {
        std::filesystem::create_directories(std::filesystem::path(folder_.path(name)).parent_path());
        tests::writeWholeFile(folder_.path(name), text);
    }
    std::string stat(std::int32_t pid, char state, std::uint64_t flags, int threads) {
        return std::to_string(pid) + " (a) b) " + state + " 1 1 1 0 -1 " + std::to_string(flags) +
               " 0 0 0 0 0 0 0 0 20 0 " + std::to_string(threads) +
               " 0 777 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 17 0 0 0 0 0 0 0 0 0 0 0 0 0 0\n";
    }
    void process(std::int32_t pid, const std::string& statm, const std::string& priority) {
        const std::string prefix = std::to_string(pid) + "/";
        write(prefix + "statm", statm);
        write(prefix + "oom_score_adj", priority);
        write(prefix + "stat", stat(pid, 'S', 0, 1));
    }
    std::vector<std::int32_t> pids() {
        std::vector<std::int32_t> found;
        const auto list = memory_.priorityList();
        if (!list) return {-1};
        for (const MemoryPriority& entry : *list) found.push_back(entry.pid);
        return found;
    }

    tests::TemporaryFolder folder_;
    LinuxProcessMemory memory_{
        {.proc = folder_.path(),
         .assertions = {
             .inhibitors = folder_.path("inhibit"), .registry = folder_.path("registry"), .owner = geteuid()}}};
};

TEST_F(ScriptedProc, ListsProcessesByTheirPidsWithTheirPriorities) {
    process(30, "10 8 2 0 0 0 0", "-1000\n");
    process(4, "10 5 5 0 0 0 0", "1000\n");
    write("not-a-pid/statm", "1 1 1");
    const auto list = memory_.priorityList();
    ASSERT_TRUE(list);
    ASSERT_EQ(list->size(), 2u);
    EXPECT_EQ((*list)[0].pid, 4);
    EXPECT_EQ((*list)[0].priority, 1000);
    EXPECT_EQ((*list)[1].priority, -1000);
    EXPECT_EQ((*list)[1].state, 0u);
    EXPECT_EQ(*memory_.physicalFootprint(30), 6 * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE)));
    EXPECT_EQ(*memory_.physicalFootprint(4), 0u);
    EXPECT_EQ(memory_.physicalFootprint(5).error().value, ESRCH);
}

TEST_F(ScriptedProc, LeavesOutKernelThreadsAndProcessesThatHaveEnded) {
    process(2, "0 0 0 0 0 0 0", "0\n");
    write("2/stat", stat(2, 'I', 0x00208040, 1));
    process(3, "0 0 0 0 0 0 0", "0\n");
    write("3/stat", stat(3, 'Z', 0, 1));
    EXPECT_THAT(pids(), IsEmpty());
}

TEST_F(ScriptedProc, KeepsAProcessWhoseFirstThreadHasEnded) {
    process(9, "0 0 0 0 0 0 0", "5\n");
    write("9/stat", stat(9, 'Z', 0, 2));
    write("9/task/9/statm", "0 0 0 0 0 0 0");
    write("9/task/10/statm", "100 30 10 0 0 0 0");
    EXPECT_THAT(pids(), ElementsAre(9));
    EXPECT_EQ(*memory_.physicalFootprint(9), 20 * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE)));
}

TEST_F(ScriptedProc, CountsWhatIsSwappedOutOnceSwapIsUsed) {
    write("meminfo", "SwapTotal: 100 kB\nSwapFree: 60 kB\n");
    process(7, "10 8 2 0 0 0 0", "0\n");
    write("7/status", "Name:\ta\nVmSize:\t 100 kB\nVmLck:\t 0 kB\nVmRSS:\t 9 kB\nRssAnon:\t 8 kB\nVmSwap:\t 40 kB\n");
    process(8, "10 8 2 0 0 0 0", "0\n");
    write("8/status", "Name:\tkthread\nThreads:\t1\n");
    write("8/stat", stat(8, 'S', 0x00200000, 1));
    EXPECT_THAT(pids(), ElementsAre(7));
    EXPECT_EQ(*memory_.physicalFootprint(7), 48u * 1024);
}

TEST_F(ScriptedProc, AProcessThatDiesWhileItIsReadIsLeftOut) {
    process(7, "10 8 2 0 0 0 0", "0\n");
    process(8, "10 8 2 0 0 0 0", "");
    std::filesystem::create_directories(folder_.path("9"));
    EXPECT_THAT(pids(), ElementsAre(7));
}

// A folder in a file's place can be opened and not read.
TEST_F(ScriptedProc, AProcessWhoseFilesCannotBeReadKeepsItsRecord) {
    for (const char* name : {"7/statm", "7/oom_score_adj"}) std::filesystem::create_directories(folder_.path(name));
    std::filesystem::create_symlink("/bin/app", folder_.path("7/exe"));
    const auto list = memory_.priorityList();
    ASSERT_TRUE(list);
    ASSERT_EQ(list->size(), 1u);
    EXPECT_EQ((*list)[0].pid, 7);
    EXPECT_EQ((*list)[0].priority, 0);
    EXPECT_EQ(*memory_.physicalFootprint(7), 0u);
    EXPECT_EQ(*memory_.executablePath(7), "/bin/app");
}

TEST_F(ScriptedProc, AKernelThreadWhoseFilesCannotBeReadIsNotListed) {
    std::filesystem::create_directories(folder_.path("8/statm"));
    write("8/oom_score_adj", "0\n");
    EXPECT_THAT(pids(), IsEmpty());
}

TEST_F(ScriptedProc, WithoutTheFolderTheListFails) {
    LinuxProcessMemory memory({.proc = folder_.path("missing"), .assertions = {}});
    const auto list = memory.priorityList();
    ASSERT_FALSE(list);
    EXPECT_EQ(list.error().value, ENOENT);
    EXPECT_FALSE(memory.executablePath(1));
}

TEST_F(ScriptedProc, PathsLoseTheMarkOfADeletedFile) {
    process(7, "10 8 2 0 0 0 0", "0\n");
    std::filesystem::create_symlink("/bin/old app (deleted)", folder_.path("7/exe"));
    EXPECT_EQ(*memory_.executablePath(7), "/bin/old app");
}

TEST_F(ScriptedProc, ALivingProcessWithoutAnExecutableHasAnEmptyPathAndADeadOneNone) {
    process(7, "10 8 2 0 0 0 0", "0\n");
    EXPECT_EQ(*memory_.executablePath(7), "");
    write("7/stat", stat(7, 'Z', 0, 1));
    EXPECT_EQ(memory_.executablePath(7).error().value, ESRCH);
    EXPECT_EQ(memory_.executablePath(8).error().value, ESRCH);
    EXPECT_EQ(memory_.executablePath(0).error().value, ESRCH);
}

TEST_F(ScriptedProc, AssertionsCountForTheProcessThatStartedThen) {
    process(7, "10 8 2 0 0 0 0", "0\n");
    process(8, "10 8 2 0 0 0 0", "0\n");
    std::filesystem::create_directories(folder_.path("registry"));
    chmod(folder_.path("registry").c_str(), 0755);
    write("registry/7", "7 777 0x21\n");
    write("registry/8", "8 776 0x21\n");
    for (const char* name : {"registry/7", "registry/8"}) chmod(folder_.path(name).c_str(), 0644);
    EXPECT_EQ(pids().size(), 2u);
    EXPECT_EQ(memory_.assertions(7), 0x21u);
    EXPECT_EQ(memory_.assertions(8), 0u);
}

// The kernel's own /proc.

// Processes that are not kernel threads and have not ended.
std::set<std::int32_t> livingProcesses() {
    std::set<std::int32_t> pids;
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        const std::string name = entry.path().filename();
        if (name.find_first_not_of("0123456789") != std::string::npos) continue;
        const auto text = readTextFile("/proc/" + name + "/stat", 4096);
        if (!text) continue;
        const auto stat = parseStat(*text);
        const char state = (*text)[text->rfind(')') + 2];
        if (stat && !(stat->flags & 0x00200000) && state != 'Z' && state != 'X') pids.insert(std::stoi(name));
    }
    return pids;
}

TEST(RealProcessMemory, EveryProcessThatLivesThroughTheListIsInItOnce) {
    LinuxProcessMemory memory;
    const auto before = livingProcesses();
    const auto list = memory.priorityList();
    const auto after = livingProcesses();
    ASSERT_TRUE(list);
    std::map<std::int32_t, int> counts;
    for (const MemoryPriority& entry : *list) ++counts[entry.pid];
    EXPECT_EQ(counts[getpid()], 1);
    for (const auto& [pid, count] : counts) EXPECT_EQ(count, 1) << pid;
    for (const std::int32_t pid : before) {
        if (after.contains(pid)) {
            EXPECT_EQ(counts[pid], 1) << pid;
        }
    }
}

// A child with this much anonymous memory, stopped until the test ends.
class Holder {
public:
    explicit Holder(std::size_t bytes) {
        int ready[2];
        if (pipe(ready) != 0) std::abort();
        pid_ = fork();
        if (pid_ == 0) {
            void* const memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
            if (memory == MAP_FAILED) _exit(1);
            std::memset(memory, 1, bytes);
            if (write(ready[1], "", 1) != 1) _exit(1);
            for (;;) pause();
        }
        char byte = 0;
        if (read(ready[0], &byte, 1) != 1) std::abort();
        close(ready[0]);
        close(ready[1]);
    }
    ~Holder() {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    Holder(const Holder&) = delete;
    Holder& operator=(const Holder&) = delete;
    pid_t pid() const { return pid_; }

private:
    pid_t pid_ = -1;
};

TEST(RealProcessMemory, AFootprintIsWhatTheKernelGives) {
    constexpr std::uint64_t kHeld = 64 << 20;
    const Holder holder(kHeld);
    LinuxProcessMemory memory;
    ASSERT_TRUE(memory.priorityList());
    const auto status = readTextFile("/proc/" + std::to_string(holder.pid()) + "/status", 65536);
    ASSERT_TRUE(status);
    const StatusText sizes = parseStatus(*status);
    const auto footprint = memory.physicalFootprint(holder.pid());
    ASSERT_TRUE(footprint);
    EXPECT_GE(*footprint, kHeld * 98 / 100);
    const auto expected = static_cast<double>(sizes.anonymous + sizes.swapped);
    const double slack = std::max(expected * 0.02, 64.0 * static_cast<double>(sysconf(_SC_PAGESIZE)));
    EXPECT_NEAR(static_cast<double>(*footprint), expected, slack);
}

TEST(RealProcessMemory, NamesItsOwnExecutable) {
    LinuxProcessMemory memory;
    EXPECT_EQ(*memory.executablePath(getpid()), std::filesystem::read_symlink("/proc/self/exe").string());
}

TEST(RealProcessMemory, AChildThatEndedHasNoPathAndIsNotListed) {
    const pid_t child = fork();
    if (child == 0) _exit(0);
    siginfo_t info{};
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT), 0);
    LinuxProcessMemory memory;
    EXPECT_EQ(memory.executablePath(child).error().value, ESRCH) << "it is a zombie";
    const auto list = memory.priorityList();
    ASSERT_TRUE(list);
    EXPECT_EQ(std::ranges::count(*list, child, &MemoryPriority::pid), 0);
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
    EXPECT_EQ(memory.executablePath(child).error().value, ESRCH);
}

// Gives all descriptors back at its end.
class NoDescriptorsLeft {
public:
    NoDescriptorsLeft() {
        getrlimit(RLIMIT_NOFILE, &before_);
        const int lowest = dup(0);
        close(lowest);
        const rlimit none{static_cast<rlim_t>(lowest), before_.rlim_max};
        if (lowest < 0 || setrlimit(RLIMIT_NOFILE, &none) != 0) std::abort();
    }
    ~NoDescriptorsLeft() { setrlimit(RLIMIT_NOFILE, &before_); }
    NoDescriptorsLeft(const NoDescriptorsLeft&) = delete;
    NoDescriptorsLeft& operator=(const NoDescriptorsLeft&) = delete;

private:
    rlimit before_{};
};

TEST(RealProcessMemory, WithoutDescriptorsEveryProcessKeepsItsNameAndNoKernelThreadIsListed) {
    LinuxProcessMemory memory;
    ASSERT_TRUE(memory.priorityList());
    std::set<std::int32_t> processes;
    {
        const NoDescriptorsLeft none;
        const auto list = memory.priorityList();
        ASSERT_TRUE(list);
        for (const MemoryPriority& entry : *list) processes.insert(entry.pid);
        EXPECT_EQ(*memory.physicalFootprint(getpid()), 0u);
        EXPECT_TRUE(memory.executablePath(getpid()));
    }
    EXPECT_TRUE(processes.contains(getpid()));
    const auto living = livingProcesses();
    for (const std::int32_t pid : processes) {
        const auto text = readTextFile("/proc/" + std::to_string(pid) + "/stat", 4096);
        EXPECT_TRUE(living.contains(pid) || !text) << *text;
    }
}

TEST(RealProcessMemory, ReadsTheCurrentPriority) {
    const Holder holder(4096);
    tests::writeWholeFile("/proc/" + std::to_string(holder.pid()) + "/oom_score_adj", "321");
    LinuxProcessMemory memory;
    const auto list = memory.priorityList();
    ASSERT_TRUE(list);
    const auto found = std::ranges::find(*list, holder.pid(), &MemoryPriority::pid);
    ASSERT_NE(found, list->end());
    EXPECT_EQ(found->priority, 321);
}

}  // namespace
}  // namespace quorvix::linuxos
