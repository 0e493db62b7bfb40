#include "platform/linux/ProcessQueries.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <string>

#include "tests/support/TemporaryFolder.h"

namespace quorvix::linuxos {
namespace {

std::string executablePath(std::int32_t pid) {
    std::array<char, 4096> buffer;
    const std::size_t length = LinuxProcessQueries().executablePath(pid, buffer);
    return std::string(buffer.data(), length);
}

TEST(ProcessQueriesTest, KnowsItsOwnPath) {
    EXPECT_EQ(executablePath(getpid()), std::filesystem::read_symlink("/proc/self/exe").string());
}

TEST(ProcessQueriesTest, AReapedProcessIsGone) {
    const pid_t child = fork();
    if (child == 0) _exit(0);
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
    EXPECT_EQ(executablePath(child), "");
}

TEST(ProcessQueriesTest, ADeletedExecutableKeepsItsPath) {
    tests::TemporaryFolder folder;
    const std::string copy = folder.path("sleeper");
    std::filesystem::copy_file("/bin/sleep", copy);
    int pipe[2];
    ASSERT_EQ(::pipe2(pipe, O_CLOEXEC), 0);
    const pid_t child = fork();
    if (child == 0) {
        execl(copy.c_str(), "sleeper", "60", nullptr);
        _exit(1);
    }
    close(pipe[1]);
    char byte = 0;
    EXPECT_EQ(read(pipe[0], &byte, 1), 0);  // the child's end closes when the new executable has begun
    close(pipe[0]);
    std::filesystem::remove(copy);
    EXPECT_EQ(executablePath(child), copy);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
}

}  // namespace
}  // namespace quorvix::linuxos
