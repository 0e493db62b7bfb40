#include "swivex/stacks/Confinement.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

namespace quorvix::swivex::stacks {
namespace {

// In a child, whose status the body gives.
template <class Body>
int inChild(Body body) {
    const pid_t child = fork();
    if (child == 0) _exit(body());
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

bool canMap(std::size_t bytes) {
    return mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0) != MAP_FAILED;
}

TEST(Confinement, LimitsMemoryToWhatIsGranted) {
    constexpr std::size_t kGranted = 64 << 20;
    EXPECT_EQ(inChild([] {
                  limitMemory(kGranted);
                  if (!canMap(kGranted / 2)) return 1;
                  return canMap(kGranted) ? 2 : 0;
              }),
              0);
}

TEST(Confinement, LeavesFilesThatAreMappedForReadingAlone) {
    EXPECT_EQ(inChild([] {
                  limitMemory(0);
                  const int file = open("/proc/self/exe", O_RDONLY);
                  return mmap(nullptr, 1 << 20, PROT_READ, MAP_PRIVATE, file, 0) == MAP_FAILED ? 1 : 0;
              }),
              0);
}

TEST(Confinement, TakesTheRightsAway) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root";
    EXPECT_EQ(inChild([] {
                  giveUpRights();
                  if (geteuid() == 0 || getuid() == 0 || getegid() == 0) return 1;
                  if (setuid(0) == 0) return 2;
                  return open("/etc/shadow", O_RDONLY) >= 0 ? 3 : 0;
              }),
              0);
}

TEST(Confinement, LeavesNoCallsBeyondReadingAndEnding) {
    EXPECT_EQ(inChild([] {
                  giveUpRights();
                  if (!forbidCalls()) return 100;
                  if (open("/proc/self/exe", O_RDONLY) >= 0) return 1;
                  if (socket(AF_UNIX, SOCK_STREAM, 0) >= 0) return 2;
                  if (kill(getppid(), 0) == 0) return 3;
                  if (fork() >= 0) return 4;
                  if (errno != EPERM) return 5;
                  return canMap(4096) ? 0 : 6;
              }),
              0);
}

}  // namespace
}  // namespace quorvix::swivex::stacks
