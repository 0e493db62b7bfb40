#include "report/SchedEvents.h"

#include <gtest/gtest.h>

#include "tests/support/TraceEncoder.h"

namespace quorvix::report {
namespace {

using tests::Message;

// A switch or a wake-up as the file has it.
Message switchEvent(std::uint64_t timeNs, std::uint64_t from, std::uint64_t to) {
    return Message().number(1, timeNs).number(2, from).message(4, Message().number(2, from).number(4, 0).number(6, to));
}
Message wakingEvent(std::uint64_t timeNs, std::uint64_t by, std::uint64_t whom, std::uint64_t targetCpu) {
    return Message().number(1, timeNs).number(2, by).message(20, Message().number(2, whom).number(5, targetCpu));
}

std::vector<SchedEvent> decoded(SchedDecoder& decoder, const Message& bundle) {
    std::vector<SchedEvent> events;
    EXPECT_TRUE(
        decoder.decode(tests::bytesOf(bundle.text()), [&](const SchedEvent& event) { events.push_back(event); }));
    return events;
}

TEST(SchedEvents, AThreadThatLeavesACpuThatWasIdleTellsSinceWhen) {
    SchedDecoder decoder;
    Message bundle;
    bundle.number(1, 3).message(2, switchEvent(100, 7, 0)).message(2, switchEvent(300, 8, 9));
    const auto events = decoded(decoder, bundle);
    ASSERT_EQ(events.size(), 2U);
    EXPECT_EQ(events[0].idleSinceNs, 0U);
    EXPECT_EQ(events[1].idleSinceNs, 100U);
}

TEST(SchedEvents, ARecordedEndOfIdlingTellsNothing) {
    SchedDecoder decoder;
    Message bundle;
    bundle.number(1, 3)
        .message(2, switchEvent(100, 7, 0))
        .message(2, switchEvent(200, 0, 8))
        .message(2, switchEvent(300, 8, 0));
    for (const SchedEvent& event : decoded(decoder, bundle)) EXPECT_EQ(event.idleSinceNs, 0U);
}

TEST(SchedEvents, IdlingIsKnownFromBundleToBundleOfOneCpu) {
    SchedDecoder decoder;
    Message first, other, second;
    first.number(1, 3).message(2, switchEvent(100, 7, 0));
    other.number(1, 4).message(2, switchEvent(250, 8, 9));
    second.number(1, 3).message(2, switchEvent(300, 8, 9));
    decoded(decoder, first);
    EXPECT_EQ(decoded(decoder, other).at(0).idleSinceNs, 0U);
    EXPECT_EQ(decoded(decoder, second).at(0).idleSinceNs, 100U);
}

TEST(SchedEvents, AfterLostEventsIdlingIsNotKnown) {
    SchedDecoder decoder;
    Message first, second;
    first.number(1, 3).message(2, switchEvent(100, 7, 0));
    second.number(1, 3).number(3, 1).message(2, switchEvent(300, 8, 9));
    decoded(decoder, first);
    EXPECT_EQ(decoded(decoder, second).at(0).idleSinceNs, 0U);
}

TEST(SchedEvents, AWakeUpTellsForWhichCpuInBothForms) {
    SchedDecoder decoder;
    Message plain, compact;
    plain.number(1, 3).message(2, wakingEvent(100, 7, 8, 5));
    EXPECT_EQ(decoded(decoder, plain).at(0).targetCpu, 5);
    compact.number(1, 3).message(
        4, Message().packed(7, {100}).packed(8, {8}).packed(9, {6}).packed(10, {120}).packed(11, {0}).packed(12, {0}));
    EXPECT_EQ(decoded(decoder, compact).at(0).targetCpu, 6);
}

TEST(SchedEvents, AWakeUpWithoutACpuTellsNone) {
    SchedDecoder decoder;
    Message bundle;
    bundle.number(1, 3).message(2, Message().number(1, 100).number(2, 7).message(20, Message().number(2, 8)));
    EXPECT_EQ(decoded(decoder, bundle).at(0).targetCpu, kNoThread);
}

}  // namespace
}  // namespace quorvix::report
