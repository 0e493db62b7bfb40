#include <gtest/gtest.h>

#include "fuzz/MemoryReportEntry.h"
#include "fuzz/ToolTextEntry.h"
#include "tests/support/FuzzSeeds.h"

namespace quorvix::ctl {
namespace {

TEST(ToolFuzz, EverySeedOfAMemoryReportIsReadUnlessItIsNamedBad) {
    tests::expectSeedsHold("memory-report", memoryReportHolds, 8);
}

TEST(ToolFuzz, EverySeedOfTheToolsTextsIsReadUnlessItIsNamedBad) {
    tests::expectSeedsHold("tool-text", fuzz::toolTextHolds, 9);
}

}  // namespace
}  // namespace quorvix::ctl
