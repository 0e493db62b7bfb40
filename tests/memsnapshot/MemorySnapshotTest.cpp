#include "tests/support/DaemonWorld.h"

namespace quorvix::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class MemorySnapshotsNotBuiltIn : public DaemonWorld {};

TEST_F(MemorySnapshotsNotBuiltIn, IsSaidWheneverOneIsDue) {
    prefer("QuorvixEnableMemoryLogging", true);
    start();
    advanceMs(3'599'999);
    EXPECT_THAT(device.log.texts("platform"), IsEmpty());
    advanceMs(1);
    EXPECT_THAT(device.log.texts("platform"), ElementsAre("Memory snapshots are not built in: none was written"));
}

}  // namespace
}  // namespace quorvix::test
