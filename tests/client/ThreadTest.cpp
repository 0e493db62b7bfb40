#include <csignal>
#include <set>

#include "tests/client/support/ClientTest.h"

namespace quorvix::test {
namespace {

std::string readFile(const std::string& path) {
    std::ifstream file(path);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

/* The status text of the library's thread, or nothing where there is none. */
std::string libraryThreadStatus() {
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        const std::string path = task.path();
        if (readFile(path + "/comm") == "quorvix\n") return readFile(path + "/status");
    }
    return "";
}

using ThreadTest = ConnectedClientTest;

TEST_F(ThreadTest, BlocksEverySignalThatCanBeBlocked) {
    const std::string status = libraryThreadStatus();
    const std::size_t position = status.find("SigBlk:\t");
    ASSERT_NE(position, std::string::npos);
    const std::uint64_t blocked = std::stoull(status.substr(position + 8, 16), nullptr, 16);
    for (int signal = 1; signal <= SIGRTMAX; ++signal) {
        /* 32 and 33 are the C library's own. */
        if (signal == SIGKILL || signal == SIGSTOP || (signal > 31 && signal < SIGRTMIN)) continue;
        EXPECT_TRUE(blocked & (std::uint64_t{1} << (signal - 1))) << "signal " << signal;
    }
}

TEST_F(ThreadTest, LeavesTheCallersMaskAlone) {
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    EXPECT_FALSE(sigismember(&mask, SIGTERM));
}

TEST_F(ThreadTest, IsGoneAfterStop) {
    EXPECT_NE(libraryThreadStatus(), "");
    quorvix_stop();
    EXPECT_EQ(libraryThreadStatus(), "");
}

std::set<int> openDescriptors() {
    std::set<int> numbers;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        const int number = std::stoi(entry.path().filename());
        if (fcntl(number, F_GETFD) >= 0) numbers.insert(number);
    }
    return numbers;
}

TEST_F(ClientTest, AllDescriptorsAreCloseOnExec) {
    const std::set<int> before = openDescriptors();
    makeNotifyFolder();
    BareServer server(folder_.path());
    ASSERT_EQ(start(), 0);
    Peer peer = server.accept();
    const Descriptor region = expectRegistration(peer);
    int added = 0;
    for (int number : openDescriptors()) {
        if (before.count(number)) continue;
        ++added;
        EXPECT_TRUE(fcntl(number, F_GETFD) & FD_CLOEXEC) << number;
    }
    /* Those of this test among them: listener, peer and region. */
    EXPECT_GE(added, 3 + 2);
}

TEST_F(ClientTest, StartingAndStoppingLeavesNoDescriptorBehind) {
    ASSERT_EQ(start(), 0); /* what is made once for ever */
    quorvix_stop();
    const std::set<int> before = openDescriptors();
    for (int i = 0; i < 10; ++i) {
        ASSERT_EQ(start(), 0);
        quorvix_stop();
    }
    EXPECT_EQ(openDescriptors(), before);
}

}  // namespace
}  // namespace quorvix::test
