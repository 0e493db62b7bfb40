#include <sys/vfs.h>

#include <thread>

#include "tests/client/support/ClientTest.h"

namespace quorvix::test {
namespace {

using RegionTest = ConnectedClientTest;

std::uint32_t inactiveOf(quorvix_hang_slot& slot) { return __atomic_load_n(&slot.inactive, __ATOMIC_ACQUIRE); }
std::uint64_t startOf(quorvix_hang_slot& slot) { return __atomic_load_n(&slot.startTime, __ATOMIC_RELAXED); }

/* Closed at the end of the test, so that the next one finds its slots free. */
class TestWatch {
public:
    explicit TestWatch(const char* name, std::uint32_t flags = 0) : watch_(quorvix_watch_open(name, flags)) {}
    ~TestWatch() { quorvix_watch_close(watch_); }
    TestWatch(const TestWatch&) = delete;
    TestWatch& operator=(const TestWatch&) = delete;
    operator quorvix_watch*() const { return watch_; }

private:
    quorvix_watch* watch_;
};

TEST_F(RegionTest, IsSealedAndExactlyAsLongAsItsSlots) {
    struct stat status;
    ASSERT_EQ(fstat(region_.get(), &status), 0);
    EXPECT_EQ(status.st_size, 2088);
    const int seals = fcntl(region_.get(), F_GET_SEALS);
    EXPECT_TRUE(seals & F_SEAL_SHRINK);
    EXPECT_TRUE(seals & F_SEAL_GROW);
    EXPECT_FALSE(seals & F_SEAL_WRITE);
    EXPECT_NE(ftruncate(region_.get(), 4096), 0);
    EXPECT_NE(ftruncate(region_.get(), 1), 0);
}

TEST_F(RegionTest, HasVersionAndSlotCountAndInactiveSlots) {
    const MappedRegion region(region_);
    EXPECT_EQ(region->version, 4u);
    EXPECT_EQ(region->slotCount, 20u);
    for (quorvix_hang_slot& slot : region->slots) EXPECT_NE(inactiveOf(slot), 0u);
}

TEST_F(RegionTest, NewWatchIsFilledInAndInactive) {
    const MappedRegion region(region_);
    const TestWatch plain("plain");
    const TestWatch saving("saving", QUORVIX_WATCH_SAVE_REPORT);
    quorvix_hang_slot& slot = region.slotNamed("plain");
    EXPECT_EQ(slot.threadID, static_cast<std::uint64_t>(gettid()));
    EXPECT_EQ(slot.saveReport, 0u);
    EXPECT_NE(inactiveOf(slot), 0u);
    EXPECT_EQ(region.slotNamed("saving").saveReport, 1u);
}

TEST_F(RegionTest, BeginPublishesTheTimeAndEndTakesItBack) {
    const MappedRegion region(region_);
    const TestWatch watch("unit");
    quorvix_hang_slot& slot = region.slotNamed("unit");
    const std::uint64_t before = quorvix_ticks_now();
    quorvix_begin(watch);
    EXPECT_EQ(inactiveOf(slot), 0u);
    EXPECT_GE(startOf(slot), before);
    EXPECT_LE(startOf(slot), quorvix_ticks_now());
    quorvix_end(watch);
    EXPECT_NE(inactiveOf(slot), 0u);
}

TEST_F(RegionTest, NextUnitOverwritesWhatTheDaemonMarkedReported) {
    const MappedRegion region(region_);
    const TestWatch watch("reported");
    quorvix_hang_slot& slot = region.slotNamed("reported");
    quorvix_begin(watch);
    __atomic_store_n(&slot.startTime, QUORVIX_CHANNEL_REPORTED, __ATOMIC_RELAXED);
    quorvix_end(watch);
    quorvix_begin(watch);
    EXPECT_NE(startOf(slot), QUORVIX_CHANNEL_REPORTED);
    quorvix_end(watch);
}

/* Each of many threads' first unit: whoever sees it active sees its start. */
TEST_F(RegionTest, AReaderThatSeesActiveSeesTheStart) {
    const MappedRegion region(region_);
    for (int round = 0; round < 200; ++round) {
        const TestWatch watch("round");
        quorvix_hang_slot& slot = region.slotNamed("round");
        __atomic_store_n(&slot.startTime, 0, __ATOMIC_RELAXED);
        std::thread writer([&] { quorvix_begin(watch); });
        while (inactiveOf(slot) != 0) std::this_thread::yield();
        EXPECT_NE(startOf(slot), 0u);
        writer.join();
    }
}

TEST_F(RegionTest, LongNamesAreCutBetweenCharacters) {
    const MappedRegion region(region_);
    const std::string head(62, 'n');
    const TestWatch exact((head + "x").c_str());
    const TestWatch cut((head + "\xc3\xa9").c_str());
    EXPECT_NO_THROW(region.slotNamed(head + "x"));
    EXPECT_NO_THROW(region.slotNamed(head));
}

TEST_F(RegionTest, TheTwentyFirstWatchIsHarmlessAndCounted) {
    const MappedRegion region(region_);
    const std::uint64_t before = statisticsNow().watchesRefused;
    std::vector<quorvix_watch*> watches;
    for (int i = 0; i < 20; ++i) watches.push_back(quorvix_watch_open("taken", 0));
    EXPECT_EQ(statisticsNow().watchesRefused, before);
    quorvix_watch* surplus = quorvix_watch_open("surplus", 0);
    EXPECT_EQ(statisticsNow().watchesRefused, before + 1);
    quorvix_begin(surplus);
    for (quorvix_hang_slot& slot : region->slots) EXPECT_NE(inactiveOf(slot), 0u);
    quorvix_end(surplus);
    quorvix_watch_close(surplus);
    quorvix_watch_close(watches.back());
    watches.back() = quorvix_watch_open("free again", 0);
    EXPECT_NO_THROW(region.slotNamed("free again"));
    for (quorvix_watch* watch : watches) quorvix_watch_close(watch);
}

TEST_F(RegionTest, ClosingInTheMiddleOfAUnitEndsIt) {
    const MappedRegion region(region_);
    quorvix_watch* watch = quorvix_watch_open("closed", 0);
    quorvix_begin(watch);
    quorvix_watch_close(watch);
    EXPECT_NE(inactiveOf(region.slotNamed("closed")), 0u);
    quorvix_watch_close(nullptr);
}

TEST_F(RegionTest, AdoptingMakesTheWatchTheCallersThread) {
    const MappedRegion region(region_);
    const TestWatch watch("adopted");
    std::uint64_t other = 0;
    std::thread([&] {
        other = static_cast<std::uint64_t>(gettid());
        quorvix_watch_adopt(watch);
    }).join();
    EXPECT_EQ(region.slotNamed("adopted").threadID, other);
}

TEST_F(RegionTest, StaysTheSameOverStopAndStart) {
    const TestWatch watch("lasting");
    quorvix_stop();
    quorvix_begin(watch);
    ASSERT_EQ(start(), 0);
    Peer next = server_.accept();
    const MappedRegion region(expectRegistration(next));
    EXPECT_EQ(inactiveOf(region.slotNamed("lasting")), 0u);
    quorvix_end(watch);
}

}  // namespace
}  // namespace quorvix::test
