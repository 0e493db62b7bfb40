#include "swivex/Dump.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <chrono>
#include <future>
#include <thread>

#include "report/TraceContents.h"
#include "tests/support/ChildProcess.h"
#include "tests/swivex/DumpSupport.h"

using namespace quorvix::swivex;
using namespace quorvix::swivex::tests;
using quorvix::tests::ChildProcess;
using quorvix::tests::TemporaryFolder;

namespace {

// Without any recorder: what can be seen now is in the file all the same.
class DumpWithoutRecorder : public testing::Test {
protected:
    DumpSettings settings{.recorder = {folder_().path(), "swivex"}};
    const std::uint64_t now = quorvix_ticks_now();

    static const TemporaryFolder& folder_() {
        static const TemporaryFolder folder;
        return folder;
    }
    bool dumpTo(int fd, std::chrono::milliseconds budget = DumpSettings::kBudget) {
        settings.budget = budget;
        return dump(fd, {.minTicks = now - 1000, .maxTicks = now}, settings);
    }
};

}  // namespace

TEST_F(DumpWithoutRecorder, SaysThatThereIsNoneAndShowsTheRest) {
    const std::string reason = reasonOf(getpid(), getpid());
    const DumpedFile file({.reason = reason, .minTicks = now - 24'000'000, .maxTicks = now}, settings);
    ASSERT_TRUE(file.written);
    EXPECT_EQ(file.attribute.at("recorder"), "none");
    EXPECT_NE(file.attribute.at("missing.recorder"), "");
    EXPECT_EQ(file.attribute.at("covered_begin_ns"), "0");
    EXPECT_EQ(file.attribute.at("reason"), reason);
    EXPECT_EQ(file.attribute.at("hung_pid"), std::to_string(getpid()));
    EXPECT_EQ(file.attribute.at("hung_tid"), std::to_string(getpid()));
    EXPECT_EQ(file.attribute.at("end"), std::to_string(file.packets.size()));
    EXPECT_TRUE(file.packets.back().has(126)) << "the end mark is the last packet";
    std::size_t stacks = 0;
    for (const Message& packet : file.packets) stacks += packet.has(135);
    EXPECT_EQ(stacks, 1U) << "one thread, one stack";
}

TEST_F(DumpWithoutRecorder, EveryFieldIsOneOfTheFormat) {
    const std::string reason = reasonOf(getpid(), getpid());
    const DumpedFile file({.reason = reason, .minTicks = now - 24'000'000, .maxTicks = now}, settings);
    const std::string complaint = file.complaint();
    if (complaint == "skipped") GTEST_SKIP() << "protoc is not installed (protobuf-compiler)";
    EXPECT_EQ(complaint, "");
}

TEST_F(DumpWithoutRecorder, FileCutAtAnyByteIsKnownToBeIncomplete) {
    // No process but the one whose stack is taken: a small file.
    const TemporaryFolder proc;
    settings.procFolder = proc.path();
    const std::string reason = reasonOf(getpid(), getpid());
    const DumpedFile file({.reason = reason, .minTicks = now - 24'000'000, .maxTicks = now}, settings);
    ASSERT_TRUE(file.written);
    ASSERT_LT(file.bytes.size(), 20'000U);
    const auto whyIncomplete = [&](std::size_t length) {
        quorvix::report::TraceContents contents;
        const quorvix::report::Bytes bytes(reinterpret_cast<const std::uint8_t*>(file.bytes.data()), length);
        contents.finish(
            quorvix::report::scanPackets(bytes, [&](quorvix::report::Bytes packet) { contents.add(packet); }));
        return contents.incomplete();
    };
    EXPECT_EQ(whyIncomplete(file.bytes.size()), "");
    for (std::size_t length = 0; length < file.bytes.size(); ++length) EXPECT_NE(whyIncomplete(length), "") << length;
}

TEST_F(DumpWithoutRecorder, IntervalThatRunsBackwardsIsRefused) {
    const DumpedFile file({.minTicks = now, .maxTicks = now - 1}, settings);
    EXPECT_FALSE(file.written);
    EXPECT_EQ(file.bytes, "");
}

TEST_F(DumpWithoutRecorder, IntervalOfNoLengthIsTaken) {
    EXPECT_TRUE(DumpedFile({.minTicks = now, .maxTicks = now}, settings).written);
}

TEST_F(DumpWithoutRecorder, IntervalInTheFutureIsSaid) {
    const DumpedFile file({.minTicks = now + 24'000'000'000, .maxTicks = UINT64_MAX}, settings);
    ASSERT_TRUE(file.written);
    EXPECT_NE(file.attribute.at("missing.window"), "");
    const DumpedFile half({.minTicks = now, .maxTicks = UINT64_MAX}, settings);
    ASSERT_TRUE(half.written);
    EXPECT_FALSE(half.attribute.contains("missing.window"));
}

TEST_F(DumpWithoutRecorder, NoIntervalIsTheLastTenSeconds) {
    const DumpedFile file({}, settings);
    ASSERT_TRUE(file.written);
    EXPECT_NE(file.attribute.at("missing.window"), "");
    EXPECT_EQ(file.attribute.at("asked_end_ns"), "0");
}

TEST_F(DumpWithoutRecorder, ReasonMayBeAnything) {
    const auto missing = [&](std::optional<std::string_view> reason) {
        const DumpedFile file({.reason = reason, .minTicks = 1, .maxTicks = now}, settings);
        EXPECT_TRUE(file.written);
        return file.attribute.contains("missing.reason");
    };
    EXPECT_TRUE(missing(std::nullopt));
    EXPECT_TRUE(missing(""));
    EXPECT_TRUE(missing("no JSON"));
    EXPECT_TRUE(missing("[1,2]"));
    EXPECT_TRUE(missing(R"({"PID":"12"})"));
    EXPECT_TRUE(missing(R"({"PID":-1})"));
    EXPECT_TRUE(missing(R"({"PID":99999999999})"));
    EXPECT_TRUE(missing(std::string(1 << 20, '[')));
    EXPECT_FALSE(missing(reasonOf(getpid(), 1)));
}

TEST_F(DumpWithoutRecorder, ReasonOfAMebibyteIsKept) {
    const std::string reason = R"({"PID":1,"Reason":")" + std::string(1 << 20, 'x') + "\"}";
    const DumpedFile file({.reason = reason, .minTicks = 1, .maxTicks = now}, settings);
    ASSERT_TRUE(file.written);
    EXPECT_EQ(file.attribute.at("reason"), reason);
}

TEST_F(DumpWithoutRecorder, ReasonThatIsNoUtf8IsMadeSo) {
    const DumpedFile file({.reason = "{\"PID\":1,\"Reason\":\"a\xff\xc0\x80z\"}", .minTicks = 1, .maxTicks = now},
                          settings);
    ASSERT_TRUE(file.written);
    EXPECT_EQ(file.attribute.at("reason"), "{\"PID\":1,\"Reason\":\"a\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbdz\"}");
    EXPECT_FALSE(file.attribute.contains("missing.reason"));
}

TEST_F(DumpWithoutRecorder, StateIsTheOneThatTheStacksWereTakenIn) {
    ChildProcess child([] { pause(); });
    const std::string process = "/" + std::to_string(child.pid());
    while (quorvix::tests::readWholeFile("/proc" + process + "/stat").find(") S ") == std::string::npos) usleep(1000);
    // Another folder, in which the thread has gone on since.
    const TemporaryFolder proc;
    settings.procFolder = proc.path();
    std::filesystem::create_directories(proc.path() + process + "/task" + process);
    const std::string id = std::to_string(child.pid());
    const std::string stat = id + " (x) R 1 1 1 0 -1 0 0 0 0 0 0 0 0 0 20 0 1 0 5 0 0\n";
    quorvix::tests::writeWholeFile(proc.path() + process + "/stat", stat);
    quorvix::tests::writeWholeFile(proc.path() + process + "/task" + process + "/stat", stat);
    const std::string reason = reasonOf(child.pid(), child.pid());
    const DumpedFile file({.reason = reason, .minTicks = 1, .maxTicks = now}, settings);
    ASSERT_TRUE(file.written);
    EXPECT_EQ(file.attribute.at("hung_left_state"), "S");
    EXPECT_FALSE(file.attribute.contains("hung_frozen"));

    settings.cgroupFolder = proc.path();
    quorvix::tests::writeWholeFile(proc.path() + process + "/cgroup", "0::/\n");
    quorvix::tests::writeWholeFile(proc.path("cgroup.events"), "populated 1\nfrozen 1\n");
    const DumpedFile frozen({.reason = reason, .minTicks = 1, .maxTicks = now}, settings);
    EXPECT_EQ(frozen.attribute.at("hung_frozen"), "1");
}

TEST_F(DumpWithoutRecorder, ProcessThatIsGoneIsSaid) {
    ChildProcess child([] {});
    child.wait();
    const std::string reason = reasonOf(child.pid(), child.pid());
    const DumpedFile file({.reason = reason, .minTicks = 1, .maxTicks = now}, settings);
    ASSERT_TRUE(file.written);
    EXPECT_NE(file.attribute.at("missing.hung_process"), "");
    EXPECT_NE(file.attribute.at("missing.stacks"), "");
}

TEST_F(DumpWithoutRecorder, ProcessThatThereWasNoTimeToLookAtIsNotCalledGone) {
    settings.budget = std::chrono::milliseconds(0);
    const std::string reason = reasonOf(getpid(), getpid());
    const DumpedFile file({.reason = reason, .minTicks = 1, .maxTicks = now}, settings);
    EXPECT_EQ(file.attribute.at("missing.hung_process").find("gone"), std::string::npos);
}

TEST_F(DumpWithoutRecorder, ThreadThatEndedSinceItsStackWasTakenIsTheHungOne) {
    std::promise<pid_t> tid;
    std::promise<void> end;
    std::thread thread([&] {
        tid.set_value(gettid());
        end.get_future().wait();
    });
    const std::string id = std::to_string(tid.get_future().get());
    // Where processes are listed it is gone already.
    const TemporaryFolder proc;
    settings.procFolder = proc.path();
    const std::string reason = reasonOf(getpid(), std::stol(id));
    const DumpedFile file({.reason = reason, .minTicks = 1, .maxTicks = now}, settings);
    end.set_value();
    thread.join();
    EXPECT_EQ(file.attribute.at("hung_tid"), id);
    EXPECT_FALSE(file.attribute.contains("missing.hung_thread"));
}

TEST_F(DumpWithoutRecorder, ThreadThatIsNoneOfTheProcessIsSaid) {
    const std::string reason = reasonOf(getpid(), 1);
    const DumpedFile file({.reason = reason, .minTicks = 1, .maxTicks = now}, settings);
    EXPECT_NE(file.attribute.at("missing.hung_thread"), "");
    EXPECT_EQ(file.attribute.at("hung_tid"), std::to_string(getpid()));
}

TEST_F(DumpWithoutRecorder, DescriptorThatTakesNothingIsAFailure) {
    EXPECT_FALSE(dumpTo(-1));
    const int closed = ::open("/dev/null", O_WRONLY);
    ::close(closed);
    EXPECT_FALSE(dumpTo(closed));
    const int readOnly = ::open("/dev/null", O_RDONLY);
    EXPECT_FALSE(dumpTo(readOnly));
    ::close(readOnly);
    const int full = ::open("/dev/full", O_WRONLY);
    EXPECT_FALSE(dumpTo(full));
    ::close(full);
}

TEST_F(DumpWithoutRecorder, PipeThatNobodyReadsIsAFailureInTime) {
    for (const int flags : {0, O_NONBLOCK}) {
        int ends[2];
        ASSERT_EQ(::pipe2(ends, flags), 0);
        // Smaller than any dump, and never read.
        ::fcntl(ends[1], F_SETPIPE_SZ, 4096);
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_FALSE(dumpTo(ends[1], std::chrono::milliseconds(600)));
        EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
        EXPECT_EQ(::fcntl(ends[1], F_GETFL) & O_NONBLOCK, flags) << "the caller's descriptor is left as it was";
        ::close(ends[0]);
        ::close(ends[1]);
    }
}

TEST_F(DumpWithoutRecorder, PipeWithoutAReaderIsAFailureAndNoSignal) {
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    ::close(ends[0]);
    EXPECT_FALSE(dumpTo(ends[1]));
    ::close(ends[1]);
    sigset_t pending;
    ::sigpending(&pending);
    EXPECT_EQ(::sigismember(&pending, SIGPIPE), 0);
}

TEST_F(DumpWithoutRecorder, FileThatMayNotGrowIsAFailureAndNoSignal) {
    const TemporaryFolder folder;
    ChildProcess child([&] {
        const rlimit small{1000, 1000};
        ::setrlimit(RLIMIT_FSIZE, &small);
        const int fd = ::open(folder.path("small").c_str(), O_RDWR | O_CREAT, 0600);
        _exit(dumpTo(fd) ? 1 : 7);
    });
    const int status = child.wait();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 7) << status;
}

TEST_F(DumpWithoutRecorder, LeavesNoDescriptorOpenAndNoChildBehind) {
    const std::string reason = reasonOf(getpid(), getpid());
    const DumpedFile first({.reason = reason, .minTicks = 1, .maxTicks = now}, settings);
    const int before = quorvix::tests::openDescriptors();
    const DumpedFile second({.reason = reason, .minTicks = 1, .maxTicks = now}, settings);
    EXPECT_EQ(quorvix::tests::openDescriptors(), before);
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG | __WALL), -1);
    EXPECT_EQ(errno, ECHILD);
}

TEST_F(DumpWithoutRecorder, BudgetThatIsUpAtOnceStillGivesAWholeFile) {
    settings.budget = std::chrono::milliseconds(0);
    const std::string reason = reasonOf(getpid(), getpid());
    const DumpedFile file({.reason = reason, .minTicks = 1, .maxTicks = now}, settings);
    ASSERT_TRUE(file.written);
    EXPECT_EQ(file.attribute.at("end"), std::to_string(file.packets.size()));
    EXPECT_NE(file.attribute.at("missing.process_tree"), "");
}

TEST_F(DumpWithoutRecorder, NoAddressOfTheKernelIsInAFileWithoutNames) {
    const std::string reason = reasonOf(getpid(), getpid());
    const DumpedFile file({.reason = reason, .names = false, .minTicks = 1, .maxTicks = now}, settings);
    ASSERT_TRUE(file.written);
    for (const Message& packet : file.packets) {
        for (const Message& data : packet.messages(12)) {
            for (const Message& name : data.messages(5)) {
                EXPECT_EQ(name.text(2).find("ffffffff"), std::string::npos) << name.text(2);
                const bool isOffset = name.text(2).starts_with("[kernel]+0x");
                EXPECT_TRUE(!isOffset || name.text(2).size() <= 11U + 8U) << name.text(2);
            }
            for (const Message& frame : data.messages(6)) {
                EXPECT_TRUE(!frame.has(4) || frame.number(4) < std::uint64_t{1} << 63);
            }
        }
    }
}
