#include "platform/linux/RegionGuard.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
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

TEST(RegionGuardDeathTest, AFaultOutsideTheRangeEndsTheProcess) {
    const Unreadable memory;
    EXPECT_DEATH(
        {
            RegionGuard guard;
            (void)guard.guarded(memory.bytes(), kPage, touch, memory.bytes() + kPage);
        },
        "");
}

TEST(RegionGuardDeathTest, AFaultAfterTheCallEndsTheProcess) {
    const Unreadable memory;
    EXPECT_DEATH(
        {
            RegionGuard guard;
            (void)guard.guarded(memory.bytes(), kPage, touch, memory.bytes());
            touch(memory.bytes());
        },
        "");
}

TEST(RegionGuardDeathTest, ASignalThatSomebodySentEndsTheProcessAlsoInsideTheCall) {
    const Unreadable memory;
    EXPECT_DEATH(
        {
            RegionGuard guard;
            (void)guard.guarded(
                memory.bytes(), kPage, [](void*) noexcept { raise(SIGSEGV); }, nullptr);
        },
        "");
}

}  // namespace
}  // namespace quorvix::linuxos
