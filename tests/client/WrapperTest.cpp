#include "quorvix.hpp"
#include "quorvix_poll.h"
#include "tests/client/support/ClientTest.h"

namespace quorvix::test {
namespace {

using WrapperTest = ConnectedClientTest;

TEST_F(WrapperTest, WorkLastsAsLongAsItsScope) {
    const MappedRegion region(region_);
    client::Watch watch("scoped", client::Report::kSave);
    const quorvix_hang_slot& slot = region.slotNamed("scoped");
    EXPECT_EQ(slot.saveReport, 1u);
    {
        const client::Work work(watch);
        EXPECT_EQ(slot.inactive, 0u);
    }
    EXPECT_EQ(slot.inactive, 1u);
}

TEST_F(WrapperTest, AMovedWatchIsClosedOnce) {
    const MappedRegion region(region_);
    client::Watch first(std::string("moved"));
    client::Watch second(std::move(first));
    second.begin();
    EXPECT_EQ(region.slotNamed("moved").inactive, 0u);
    first = std::move(second);
    first.end();
    EXPECT_EQ(region.slotNamed("moved").inactive, 1u);
}

TEST_F(WrapperTest, ASecondSessionSaysSoAndStopsNothing) {
    { EXPECT_EQ(client::Session().error(), EALREADY); }
    EXPECT_EQ(quorvix_fence_begin(1), 0);
}

TEST_F(WrapperTest, PollIsNoWorkAndWhatFollowsIs) {
    const MappedRegion region(region_);
    quorvix_watch* watch = quorvix_watch_open("polled", 0);
    const quorvix_hang_slot& slot = region.slotNamed("polled");
    EXPECT_EQ(quorvix_poll(watch, nullptr, 0, 0), 0);
    EXPECT_EQ(slot.inactive, 0u);
    const std::uint64_t first = slot.startTime;
    errno = ETIMEDOUT;
    pollfd nobody{-1, POLLIN, 0};
    EXPECT_EQ(quorvix_poll(watch, &nobody, 1, 1), 0);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_EQ(slot.inactive, 0u);
    EXPECT_GT(slot.startTime, first);
    quorvix_watch_close(watch);
}

}  // namespace
}  // namespace quorvix::test
