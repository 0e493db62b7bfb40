#include "swivex/EventDecoder.h"

#include <gtest/gtest.h>

#include "swivex/RingText.h"
#include "tests/swivex/RecordedRing.h"

using namespace quorvix::swivex;
using namespace quorvix::swivex::tests;

namespace {

std::vector<TextEvent> recordedText() {
    std::vector<TextEvent> events;
    std::string_view rest;
    static const std::string text = recorded("ring.text");
    rest = text;
    while (!rest.empty()) {
        const std::size_t end = rest.find('\n');
        TextEvent event;
        if (parseRingLine(rest.substr(0, end), event)) events.push_back(std::move(event));
        rest.remove_prefix(end + 1);
    }
    return events;
}

std::string fieldOf(const Event& event, std::string_view name) {
    for (const EventField& field : event.allFields()) {
        if (field.name == name) return field.isText ? std::string(field.text) : std::to_string(field.number);
    }
    return "(none)";
}

}  // namespace

// The kernel made both: what the decoder reads from the bytes is what the text says.
TEST(EventDecoder, AgreesWithTheKernelsOwnTextOfTheSamePages) {
    const EventDecoder decoder = recordedDecoder();
    auto text = recordedText();
    std::size_t at = 0;
    std::size_t switches = 0, wakings = 0, others = 0;
    for (const RecordedPage& page : recordedPages()) {
        RingPage reader(page.timeNs, page.data());
        while (const auto record = reader.next()) {
            ASSERT_LT(at, text.size());
            TextEvent& line = text[at++];
            const Event& expected = line.view();
            EXPECT_EQ((record->timeNs + 500) / 1000 * 1000, expected.timeNs) << "the text is rounded";
            Event event;
            if (!decoder.decode(record->timeNs, record->data, event)) {
                EXPECT_EQ(expected.name, "signal_deliver") << "the only one whose format was not recorded";
                continue;
            }
            EXPECT_EQ(event.kind, expected.kind);
            EXPECT_EQ(event.pid, expected.pid);
            EXPECT_EQ(event.commonFlags & 0x18, expected.commonFlags);
            switch (event.kind) {
                case EventKind::schedSwitch:
                    ++switches;
                    EXPECT_EQ(event.prevPid, expected.prevPid);
                    EXPECT_EQ(event.prevPrio, expected.prevPrio);
                    EXPECT_EQ(event.prevState, expected.prevState);
                    EXPECT_EQ(event.prevComm, expected.prevComm);
                    EXPECT_EQ(event.nextPid, expected.nextPid);
                    EXPECT_EQ(event.nextPrio, expected.nextPrio);
                    EXPECT_EQ(event.nextComm, expected.nextComm);
                    break;
                case EventKind::schedWaking:
                case EventKind::schedWakeupNew:
                    ++wakings;
                    EXPECT_EQ(event.nextPid, expected.nextPid);
                    EXPECT_EQ(event.nextComm, expected.nextComm);
                    EXPECT_EQ(event.targetCpu, expected.targetCpu);
                    break;
                case EventKind::print: EXPECT_EQ(event.text, std::string(expected.text) + "\n"); break;
                case EventKind::other:
                    ++others;
                    EXPECT_EQ(event.name, expected.name);
                    break;
            }
        }
        EXPECT_FALSE(reader.damaged());
    }
    EXPECT_GT(switches, 30U);
    EXPECT_GT(wakings, 10U);
    EXPECT_GT(others, 20U);
}

TEST(EventDecoder, ReadsTextsThatLieElsewhereInTheRecord) {
    const EventDecoder decoder = recordedDecoder();
    std::vector<std::string> programs;
    for (const RecordedPage& page : recordedPages()) {
        RingPage reader(page.timeNs, page.data());
        while (const auto record = reader.next()) {
            Event event;
            if (decoder.decode(record->timeNs, record->data, event) && event.name == "sched_process_exec") {
                programs.push_back(fieldOf(event, "filename"));
            }
        }
    }
    ASSERT_GE(programs.size(), 2U);
    EXPECT_EQ(programs[0], "/usr/bin/taskset");
    EXPECT_EQ(programs[1], "/usr/bin/bash");
}

TEST(EventDecoder, ShortRecordReadsAsZeroes) {
    const EventDecoder decoder = recordedDecoder();
    const RecordedPage page = recordedPages()[0];
    RingPage reader(page.timeNs, page.data());
    while (const auto record = reader.next()) {
        for (std::size_t size = 0; size < record->data.size(); ++size) {
            Event event;
            const bool known = decoder.decode(0, record->data.first(size), event);
            EXPECT_TRUE(size >= 2 || !known);
            EXPECT_TRUE(!known || size >= 8 || event.pid == 0);
        }
    }
}

TEST(EventFormat, ReadsFieldsWithTheirPlaces) {
    const auto format = parseEventFormat(recorded("sched_switch.format"));
    ASSERT_TRUE(format);
    EXPECT_EQ(format->name, "sched_switch");
    const FieldFormat* const state = format->field("prev_state");
    ASSERT_TRUE(state);
    EXPECT_EQ(state->offset, 32U);
    EXPECT_EQ(state->size, 8U);
    EXPECT_TRUE(state->isSigned);
    EXPECT_EQ(format->field("prev_comm")->kind, FieldFormat::Kind::text);
    EXPECT_EQ(parseEventFormat(recorded("print.format"))->field("buf")->kind, FieldFormat::Kind::rest);
    EXPECT_EQ(parseEventFormat(recorded("print.format"))->field("ip")->kind, FieldFormat::Kind::skipped);
    EXPECT_EQ(parseEventFormat(recorded("sched_process_exec.format"))->field("filename")->kind,
              FieldFormat::Kind::location);
}

TEST(EventFormat, TakesOtherPlacesOfTheSameFields) {
    EventDecoder decoder;
    decoder.add(parseEventFormat("name: sched_switch\nID: 9\nformat:\n"
                                 "\tfield:int common_pid;\toffset:2;\tsize:4;\tsigned:1;\n"
                                 "\tfield:short next_pid;\toffset:6;\tsize:2;\tsigned:1;\n")
                    .value());
    const std::vector<std::uint8_t> record = {9, 0, 5, 0, 0, 0, 0xff, 0xff};
    Event event;
    ASSERT_TRUE(decoder.decode(77, record, event));
    EXPECT_EQ(event.pid, 5);
    EXPECT_EQ(event.nextPid, -1);
    EXPECT_EQ(event.prevPid, 0) << "a field that this kernel does not have";
}

TEST(EventFormat, RefusesWhatMakesNoSense) {
    EXPECT_FALSE(parseEventFormat(""));
    EXPECT_FALSE(parseEventFormat("name: x\n"));
    EXPECT_FALSE(parseEventFormat("ID: 3\n"));
    EXPECT_FALSE(parseEventFormat("name: x\nID: 70000\n"));
    EXPECT_FALSE(parseEventFormat("name: x\nID: 3\n\tfield:int a;\toffset:99999999;\tsize:4;\n"));
    EXPECT_FALSE(parseEventFormat("name: x\nID: 3\n\tfield:int a\n"));
    EXPECT_TRUE(parseEventFormat("name: x\nID: 3\n"));
}

TEST(EventFormat, ReadsThePageLayout) {
    const auto page = parsePageFormat(recorded("header_page"));
    ASSERT_TRUE(page);
    EXPECT_EQ(page->commitOffset, 8U);
    EXPECT_EQ(page->commitSize, 8U);
    EXPECT_EQ(page->dataOffset, 16U);
    EXPECT_FALSE(parsePageFormat(""));
    EXPECT_FALSE(parsePageFormat("\tfield: local_t commit;\toffset:8;\tsize:3;\tsigned:1;\n"));
}

TEST(RingText, NamesMayHoldWhatFieldsHold) {
    TextEvent event;
    ASSERT_TRUE(
        parseRingLine("  a [0] b-1 x: y-77  [003] d.h2.    12.000345: sched_switch: prev_comm=p prev_pid=1 "
                      "prev_pid=5 prev_prio=120 prev_state=D|K ==> next_comm=n ==> x next_pid=6 next_prio=-1",
                      event));
    const Event& seen = event.view();
    EXPECT_EQ(seen.pid, 77);
    EXPECT_EQ(seen.timeNs, 12'000'345'000U);
    EXPECT_EQ(seen.commonFlags, 8U);
    EXPECT_EQ(seen.prevPid, 5);
    EXPECT_EQ(seen.prevComm, "p prev_pid=1");
    EXPECT_EQ(seen.prevState, 2);
    EXPECT_EQ(seen.nextPid, 6);
    EXPECT_EQ(seen.nextPrio, -1);
}

TEST(RingText, RefusesWhatIsNoEventsLine) {
    TextEvent event;
    for (const char* line :
         {"", "# tracer: nop", "x", "CPU:0 [LOST 17 EVENTS]", "a-1 [000] d..2. 1.2: sched_switch: x",
          "a-1 [000] d..2. 1.000002: sched_switch: prev_comm=x", "a-b [000] d..2. 1.000002: print: x",
          "a-1 [000] d..2. 99999999999999999999.000002: print: x"}) {
        EXPECT_FALSE(parseRingLine(line, event)) << line;
    }
}

TEST(RingText, LeavesAddressesOut) {
    TextEvent event;
    ASSERT_TRUE(
        parseRingLine("bash-49 [000] d..1.  2521.936726: signal_deliver: sig=17 code=1 sa_handler=563cf16fce40 "
                      "sa_flags=14000000",
                      event));
    EXPECT_EQ(event.view().allFields()[0].text, "sig=17 code=1 sa_flags=14000000");
}
