#include "swivex/ProcessList.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <thread>

#include "swivex/CommandLines.h"
#include "swivex/ProcessPackets.h"
#include "swivex/ProcessText.h"
#include "swivex/StackPackets.h"
#include "swivex/Utf8.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/swivex/TraceReader.h"

using namespace quorvix::swivex;
using namespace quorvix::swivex::tests;
using quorvix::tests::writeWholeFile;

namespace {

const Deadline kLater = Deadline::in(std::chrono::seconds(60));

// A folder that looks like /proc.
class ProcFolder {
public:
    const std::string& path() const { return folder_.path(); }

    void process(int pid, const std::string& comm, int threads = 1, const std::string& inner = "") {
        const std::string base = folder_.path(std::to_string(pid));
        std::filesystem::create_directories(base + "/task");
        writeWholeFile(base + "/stat", std::to_string(pid) + " (" + comm +
                                           ") S 7 1 1 0 -1 4194304 1 2 3 4 50 60 7 8 20 0 " + std::to_string(threads) +
                                           " 0 1234 1 2 3\n");
        writeWholeFile(base + "/status",
                       "Name:\tx\nUid:\t1000\t0\t0\t0\nNSpid:\t" + std::to_string(pid) + inner +
                           "\nVmHWM:\t   9 kB\nVmSize:\t  100 kB\nVmRSS:\t   40 kB\nRssAnon:\t 30 kB\n");
        writeWholeFile(base + "/oom_score_adj", "-17\n");
    }
    void thread(int pid, int tid, const std::string& comm, const std::string& inner = "") {
        const std::string base = folder_.path(std::to_string(pid) + "/task/" + std::to_string(tid));
        std::filesystem::create_directories(base);
        writeWholeFile(base + "/comm", comm + "\n");
        writeWholeFile(base + "/status", "Name:\tx\nNSpid:\t" + std::to_string(tid) + inner + "\n");
    }
    std::string path(const std::string& name) const { return folder_.path(name); }

private:
    quorvix::tests::TemporaryFolder folder_;
};

}  // namespace

TEST(ProcessList, ReadsProcessesAndThreadsTheWantedOneFirst) {
    ProcFolder proc;
    proc.process(10, "ten");
    proc.process(20, "odd ) S (name", 2);
    proc.thread(20, 20, "ignored");
    proc.thread(20, 21, "worker");
    const ProcessList list = listProcesses(proc.path(), 20, kLater);
    ASSERT_EQ(list.processes.size(), 2U);
    const ProcessEntry& first = list.processes[0];
    EXPECT_EQ(first.pid, 20);
    EXPECT_EQ(first.name, "odd ) S (name");
    EXPECT_EQ(first.ppid, 7);
    EXPECT_EQ(first.uid, 1000U);
    EXPECT_EQ(first.residentKb, 40U);
    EXPECT_EQ(first.oomScoreAdj, -17);
    EXPECT_EQ(first.userNs, 500'000'000U);
    EXPECT_EQ(first.startNs, 12'340'000'000U);
    ASSERT_EQ(first.threads.size(), 2U);
    EXPECT_EQ(first.threads[1].name, "worker");
    EXPECT_EQ(list.problem, "");
}

TEST(ProcessList, DeadlineThatPassedIsSaid) {
    ProcFolder proc;
    proc.process(10, "ten");
    const ProcessList list = listProcesses(proc.path(), 10, Deadline::in(std::chrono::seconds(0)));
    EXPECT_TRUE(list.processes.empty());
    EXPECT_NE(list.problem, "");
    EXPECT_NE(listProcesses("/nonexistent", 1, kLater).problem, "");
}

TEST(ProcessList, ThreadOfANamespaceIsFoundByTheIdThatItKnows) {
    ProcFolder proc;
    proc.process(500, "app", 3, "\t40\t2");
    proc.thread(500, 500, "app");
    proc.thread(500, 501, "a", "\t41\t3");
    proc.thread(500, 502, "b", "\t42\t500");
    const ProcessList list = listProcesses(proc.path(), 500, kLater);
    const ProcessEntry& app = list.processes.at(0);
    EXPECT_EQ(hostThread(app, 2), 500);
    EXPECT_EQ(hostThread(app, 3), 501);
    EXPECT_EQ(hostThread(app, 500), 502) << "its own id counts before the host's";
    EXPECT_EQ(hostThread(app, 501), 501) << "an id that only the host knows";
    EXPECT_EQ(hostThread(app, 41), 0);
    EXPECT_EQ(hostThread(app, 0), 0);
    EXPECT_EQ(hostThread(app, -1), 0);
}

TEST(ProcessText, RefusesWhatIsNoStatLine) {
    EXPECT_FALSE(parseStat(""));
    EXPECT_FALSE(parseStat("1 (x"));
    EXPECT_FALSE(parseStat(")("));
    EXPECT_FALSE(parseStat("1 (x) S 1 2 3"));
}

TEST(CommandLines, AreTheProcessesOwn) {
    ProcFolder proc;
    proc.process(10, "ten");
    proc.process(11, "eleven");
    proc.process(12, "twelve");
    writeWholeFile(proc.path("10/cmdline"), std::string("/bin/ten\0--flag\0", 16));
    writeWholeFile(proc.path("12/cmdline"), std::string("\0\0\0", 3));
    ProcessList list = listProcesses(proc.path(), 0, kLater);
    EXPECT_EQ(readCommandLines(list, proc.path(), kLater), "");
    EXPECT_EQ(list.processes[0].arguments, (std::vector<std::string>{"/bin/ten", "--flag"}));
    EXPECT_TRUE(list.processes[1].arguments.empty());
    EXPECT_TRUE(list.processes[2].arguments.empty()) << "it has wiped its own";
}

TEST(CommandLines, OneThatNeverComesHoldsNobodyUp) {
    ProcFolder proc;
    proc.process(10, "ten");
    proc.process(11, "eleven");
    writeWholeFile(proc.path("10/cmdline"), std::string("/bin/ten\0", 9));
    // Opening it waits for a writer, for ever.
    ASSERT_EQ(mkfifo(proc.path("11/cmdline").c_str(), 0600), 0);
    ProcessList list = listProcesses(proc.path(), 0, kLater);
    const std::string problem = readCommandLines(list, proc.path(), Deadline::in(std::chrono::milliseconds(500)));
    EXPECT_NE(problem, "");
    EXPECT_EQ(list.processes[0].arguments, std::vector<std::string>{"/bin/ten"}) << "what came is taken";
    // The child dies of its signal and is looked after by the next one.
    std::filesystem::remove(proc.path("11/cmdline"));
    while (!readCommandLines(list, proc.path(), kLater).empty()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG | __WALL), -1);
    EXPECT_EQ(errno, ECHILD);
}

TEST(CommandLines, ReaderThatHadToBeEndedIsNoChildAnyMore) {
    ProcFolder proc;
    proc.process(10, "ten");
    ASSERT_EQ(mkfifo(proc.path("10/cmdline").c_str(), 0600), 0);
    ProcessList list = listProcesses(proc.path(), 0, kLater);
    const auto hasChild = [] {
        siginfo_t information{};
        return waitid(P_ALL, 0, &information, WEXITED | WNOHANG | WNOWAIT | __WALL) == 0;
    };
    // The kernel may be late now and then.
    bool left = true;
    for (int attempt = 0; left && attempt < 20; ++attempt) {
        EXPECT_NE(readCommandLines(list, proc.path(), Deadline::in(std::chrono::milliseconds(20))), "");
        left = hasChild();
    }
    EXPECT_FALSE(left);
}

TEST(ProcessPackets, EveryProcessAndThreadStandsOnceAcrossPackets) {
    ProcessList list;
    for (int pid = 1; pid <= 30; ++pid) {
        ProcessEntry process;
        process.pid = pid * 1000;
        process.name = "p";
        for (int tid = 0; tid < pid * 3; ++tid) process.threads.push_back({process.pid + tid, "t", {}});
        list.processes.push_back(std::move(process));
    }
    PacketBuffer file(PacketBuffer::Form::plain);
    writeProcessTree(file, list, 5);
    std::map<std::uint64_t, int> processes, threads;
    for (const Message& packet :
         packetsOf({reinterpret_cast<const char*>(file.encoded().data()), file.encoded().size()})) {
        const Message tree = packet.message(2);
        for (const Message& process : tree.messages(1)) ++processes[process.number(1)];
        for (const Message& thread : tree.messages(2)) ++threads[thread.number(1)];
    }
    EXPECT_EQ(processes.size(), 30U);
    EXPECT_EQ(threads.size(), 3U * 30 * 31 / 2);
    for (const auto& [pid, count] : processes) EXPECT_EQ(count, 1) << pid;
    for (const auto& [tid, count] : threads) EXPECT_EQ(count, 1) << tid;
}

TEST(StackPackets, FramesAreNamedByModuleAndDistanceOutermostFirst) {
    StackCapture capture;
    capture.kernelTextStart = 0xffffffff81000000;
    capture.modules.push_back({.start = 0x7000,
                               .end = 0x9000,
                               .fileOffset = 0x1000,
                               .loadBias = 0,
                               .loadBase = 0x6000,
                               .path = "/usr/lib/libx.so",
                               .buildId = {1, 0xff, 0}});
    ThreadStack thread;
    thread.tid = 12;
    thread.user = {{0x7010, 0}, {0x8020, 0}, {0x55, -1}};
    const KernelModules modules("ext4 4096 1 - Live 0xffffffffc0100000\nfuse 8192 3 - Live 0xffffffffc0a00000 (E)\n");
    // The first after the longest text, and one past a module's end, are in nothing that is known.
    thread.kernel = {{0xffffffff81000abc, ""},
                     {0xffffffff81000def, "schedule+0x1/0x2"},
                     {0xfff, ""},
                     {0xffffffffc0a01fff, ""},
                     {0xffffffffc0a02000, ""},
                     {0xffffffff85000000, ""},
                     {0xffffffff84ffffff, ""}};
    capture.threads = {thread, thread};
    capture.threads[1].tid = 13;
    capture.threads[1].problem = "it was gone";
    PacketBuffer file(PacketBuffer::Form::plain);
    writeStacks(file, capture, modules, 10, 5);
    const auto packets = packetsOf({reinterpret_cast<const char*>(file.encoded().data()), file.encoded().size()});
    ASSERT_EQ(packets.size(), 2U);
    const Message data = packets[0].message(12);
    std::map<std::uint64_t, std::string> functions, frames;
    for (const Message& one : data.messages(5)) functions[one.number(1)] = one.text(2);
    for (const Message& one : data.messages(6)) frames[one.number(1)] = functions.at(one.number(2));
    std::vector<std::string> names;
    for (const Message::Field& frame : data.message(7).all(2)) names.push_back(frames.at(frame.value));
    EXPECT_EQ(names, (std::vector<std::string>{"0x55", "libx.so+0x2020", "libx.so+0x1010", "[kernel]+0x3ffffff",
                                               "[kernel]", "[kernel]", "[fuse]+0x1fff", "[kernel]", "schedule+0x1/0x2",
                                               "[kernel]+0xabc"}));
    EXPECT_EQ(data.message(16).text(2), std::string("\x01\xff\0", 3));
    EXPECT_EQ(data.messages(17).size(), 3U) << "the parts of the path";
    EXPECT_EQ(data.messages(6)[5].number(4), 0x1010U) << "the address inside the file";
    EXPECT_EQ(packets[1].message(135).text(7), "it was gone");
    EXPECT_EQ(packets[1].message(135).number(6), packets[0].message(135).number(6)) << "the same stack is written once";
}

TEST(KernelModules, WithoutAddressesAreNone) {
    const KernelModules modules("fuse 8192 3 - Live 0x0000000000000000\nnonsense\n\nx 1 2 - Live\n");
    EXPECT_FALSE(modules.find(0));
    EXPECT_FALSE(modules.find(100));
    EXPECT_FALSE(KernelModules().find(1));
}

TEST(Utf8, OnlyWhatIsInvalidIsReplaced) {
    const std::string replaced = "\xef\xbf\xbd";
    EXPECT_EQ(validUtf8("a\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80"), "a\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80");
    EXPECT_EQ(validUtf8("\xff"), replaced);
    EXPECT_EQ(validUtf8("\xc3"), replaced);
    EXPECT_EQ(validUtf8("\xc0\x80"), replaced + replaced);
    EXPECT_EQ(validUtf8("\xed\xa0\x80"), replaced + replaced + replaced);
    EXPECT_EQ(validUtf8("\xf4\x90\x80\x80z"), replaced + replaced + replaced + replaced + "z");
}
