#include "platform/linux/RegionGuard.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <thread>
#include <vector>

namespace quorvix::linuxos {
namespace {

constexpr std::size_t kPage = 4096;

// Address space that faults wherever it is touched.
class Unreadable {
public:
    Unreadable() : address_(mmap(nullptr, 2 * kPage, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)) {}
    ~Unreadable() { munmap(address_, 2 * kPage); }
    std::uint8_t* bytes() const { return static_cast<std::uint8_t*>(address_); }

private:
    void* address_;
};

void touch(void* address) noexcept { *static_cast<volatile std::uint8_t*>(address) = 1; }

TEST(RegionGuardTest, AFaultInsideTheRangeEndsTheCall) {
    RegionGuard guard;
    const Unreadable memory;
    EXPECT_FALSE(guard.guarded(memory.bytes(), 2 * kPage, touch, memory.bytes()));
    EXPECT_FALSE(guard.guarded(memory.bytes(), 2 * kPage, touch, memory.bytes() + 2 * kPage - 1));
}

TEST(RegionGuardTest, ACallWithoutAFaultRunsToItsEnd) {
    RegionGuard guard;
    std::uint8_t byte = 0;
    EXPECT_TRUE(guard.guarded(&byte, 1, touch, &byte));
    EXPECT_EQ(byte, 1);
}

TEST(RegionGuardTest, AMissingPageOfAFileIsSurvivedToo) {
    RegionGuard guard;
    const int file = memfd_create("cut", MFD_CLOEXEC);
    ASSERT_EQ(ftruncate(file, kPage), 0);
    void* mapped = mmap(nullptr, kPage, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    ASSERT_EQ(ftruncate(file, 0), 0);
    EXPECT_FALSE(guard.guarded(mapped, kPage, touch, mapped)) << "a bus error, not a segmentation fault";
    munmap(mapped, kPage);
    close(file);
}

TEST(RegionGuardTest, EveryThreadHasItsOwnRange) {
    RegionGuard guard;
    std::atomic<int> survived{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            const Unreadable memory;
            for (int n = 0; n < 500; ++n) {
                survived += !guard.guarded(memory.bytes(), 2 * kPage, touch, memory.bytes() + n);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(survived, 4 * 500);
}

// Each in a process of its own, where no guard was made before.
class RegionGuardDeathTest : public testing::Test {
protected:
    RegionGuardDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
    // The action that stood before the guard is the kernel's: these deaths are wanted and not for a sanitizer to
    // report.
    static void takeSanitizersHandlersAway() {
        std::signal(SIGSEGV, SIG_DFL);
        std::signal(SIGBUS, SIG_DFL);
    }
};

TEST_F(RegionGuardDeathTest, AFaultOutsideTheRangeEndsTheProcess) {
    const Unreadable memory;
    EXPECT_EXIT(
        {
            takeSanitizersHandlersAway();
            RegionGuard guard;
            (void)guard.guarded(memory.bytes(), kPage, touch, memory.bytes() + kPage);
        },
        testing::KilledBySignal(SIGSEGV), "");
}

TEST_F(RegionGuardDeathTest, AFaultAfterTheCallEndsTheProcess) {
    const Unreadable memory;
    EXPECT_EXIT(
        {
            takeSanitizersHandlersAway();
            RegionGuard guard;
            (void)guard.guarded(memory.bytes(), kPage, touch, memory.bytes());
            touch(memory.bytes());
        },
        testing::KilledBySignal(SIGSEGV), "");
}

TEST_F(RegionGuardDeathTest, ASignalThatSomebodySentEndsTheProcessAlsoInsideTheCall) {
    const Unreadable memory;
    EXPECT_EXIT(
        {
            takeSanitizersHandlersAway();
            RegionGuard guard;
            (void)guard.guarded(
                memory.bytes(), kPage, [](void*) noexcept { raise(SIGSEGV); }, nullptr);
        },
        testing::KilledBySignal(SIGSEGV), "");
}

}  // namespace
}  // namespace quorvix::linuxos
