#include "report/CpuUse.h"

#include <gtest/gtest.h>

#include "tests/support/TraceEncoder.h"

namespace quorvix::report {
namespace {

using tests::switched;

constexpr Interval kHang{1000, 2000};

TEST(CpuUse, AddsUpEachThreadOverAllCpusInsideTheInterval) {
    CpuUse use(kHang);
    use.add(switched(900, 0, 0, 5));
    use.add(switched(1400, 5, 0, 6));
    use.add(switched(1500, 6, 0, 0));
    SchedEvent other = switched(1900, 7, 0, 5);
    other.cpu = 1;
    use.add(other);
    const CpuUse::Summary summary = use.finish();
    EXPECT_EQ(summary.cpus, 2U);
    EXPECT_EQ(summary.idleNs, 500U);
    ASSERT_EQ(summary.users.size(), 3U);
    EXPECT_EQ(summary.users[0].tid, 7) << "it was on its CPU before the first switch";
    EXPECT_EQ(summary.users[0].ranNs, 900U);
    EXPECT_EQ(summary.users[1].tid, 5);
    EXPECT_EQ(summary.users[1].ranNs, 500U);
    EXPECT_EQ(summary.users[2].ranNs, 100U);
}

TEST(CpuUse, EventsAfterTheIntervalStillTellWhoRanAtItsEnd) {
    CpuUse use(kHang);
    use.add(switched(2500, 5, 0, 6));
    const CpuUse::Summary summary = use.finish();
    ASSERT_EQ(summary.users.size(), 1U);
    EXPECT_EQ(summary.users[0].ranNs, 1000U);
}

TEST(CpuUse, TimesThatRunBackwardsCountNothing) {
    CpuUse use(kHang);
    use.add(switched(1500, 0, 0, 5));
    use.add(switched(1100, 5, 0, 6));
    EXPECT_EQ(use.finish().users.size(), 1U);
}

}  // namespace
}  // namespace quorvix::report
