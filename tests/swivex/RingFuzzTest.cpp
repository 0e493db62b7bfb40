#include <gtest/gtest.h>

#include "fuzz/RingPageEntry.h"
#include "fuzz/RingTextEntry.h"
#include "fuzz/StackRecordsEntry.h"
#include "fuzz/TraceTextEntry.h"
#include "tests/support/FuzzSeeds.h"

using quorvix::tests::expectSeedsHold;

TEST(RingFuzz, EverySeedOfAPageIsReadUnlessItIsNamedBad) { expectSeedsHold("ring-page", ringPageHolds, 6); }

TEST(RingFuzz, EverySeedOfALineIsReadUnlessItIsNamedBad) { expectSeedsHold("ring-text", ringTextHolds, 8); }

TEST(TraceTextFuzz, EverySeedIsReadUnlessItIsNamedBad) {
    expectSeedsHold("trace-text", quorvix::fuzz::traceTextHolds, 30);
}

TEST(StackRecordsFuzz, EverySeedIsCompleteUnlessItIsNamedBad) {
    const auto entry = [](const std::string& bytes) { return stackRecordsHold(std::as_bytes(std::span(bytes))); };
    expectSeedsHold("stack-records", entry, 9);
}
