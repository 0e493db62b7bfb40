#include "report/HangReport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "report/ReportText.h"
#include "tests/support/TraceEncoder.h"

namespace quorvix::report {
namespace {

using testing::HasSubstr;
using testing::Not;
using tests::switched;
using tests::TraceEncoder;
using tests::woken;
using namespace thread_state;

constexpr std::int32_t kHung = 10;
constexpr std::int32_t kWorker = 20;
constexpr std::uint64_t kMs = 1'000'000;
constexpr Interval kWindow{1000 * kMs, 2000 * kMs};

HangReport read(const TraceEncoder& trace) {
    const std::string file = trace.file();
    return analyse([&](const PacketFile::Visitor& visit) { return scanPackets(tests::bytesOf(file), visit); });
}

// A hang of one second of the main thread of "app".
TraceEncoder hang() {
    TraceEncoder trace;
    trace.hang(kWindow.beginNs, kWindow.endNs, kHung, kHung).covered(500 * kMs, 2500 * kMs);
    trace.text("reason",
               R"({"Reason":"too long","ServiceName":"HangTracer","ProcessPath":"/opt/app","PID":10,"ThreadID":10})");
    trace.attributes().clocks(1'700'000'000'000'000'000, 1000 * kMs);
    trace.process(kHung, "/opt/app").thread(kHung, kHung, "app").thread(kWorker, kHung, "worker");
    return trace;
}

TEST(HangReport, BlockedNamesWhoEndedTheWaitAndWhatThatThreadDidBefore) {
    TraceEncoder trace = hang();
    trace.events(0, {switched(900 * kMs, 0, 0, kHung), switched(1050 * kMs, kHung, kInterruptible, 0),
                     switched(2010 * kMs, 0, 0, kHung)});
    trace.events(1,
                 {switched(600 * kMs, 0, 0, kWorker), switched(1500 * kMs, kWorker, kUninterruptible, 0),
                  switched(1900 * kMs, 0, 0, kWorker), woken(2000 * kMs, kWorker, kHung)},
                 TraceEncoder::Form::compact);
    const HangReport report = read(trace);
    EXPECT_EQ(report.incomplete, "");
    EXPECT_EQ(report.verdict.cause, Cause::blocked);
    EXPECT_DOUBLE_EQ(report.verdict.shares.sleeping, 0.95);
    ASSERT_EQ(report.waits.size(), 1U);
    ASSERT_TRUE(report.waits[0].waker);
    EXPECT_EQ(report.waits[0].waker->name, "worker");
    ASSERT_TRUE(report.waits[0].wakerBefore);
    EXPECT_EQ(report.waits[0].wakerBefore->at(Activity::running), 550 * kMs);
    EXPECT_EQ(report.waits[0].wakerBefore->at(Activity::uninterruptible), 400 * kMs);
    EXPECT_THAT(reportText(report), HasSubstr("ended by worker (20) of app, which until then ran 550.0 ms, waited "
                                              "uninterruptibly 400.0 ms"));
    EXPECT_THAT(reportText(report), HasSubstr("of its process, worker (20) of app ran most meanwhile: 600.0 ms"));
}

TEST(HangReport, AThreadThatSleptThroughTheWholeHangIsBlockedAndItsStackSaysWhere) {
    TraceEncoder trace;
    trace.number("hung_left_ns", 700 * kMs).text("hung_left_state", "S");
    trace.hang(kWindow.beginNs, kWindow.endNs, kHung, kHung).covered(500 * kMs, 2500 * kMs).attributes();
    trace.stack(
        kHung, kHung,
        {{.name = "futex_wait_queue", .isKernel = true}, {.name = "libc.so.6+0x10", .module = "/lib/libc.so.6"}});
    const HangReport report = read(trace);
    EXPECT_EQ(report.verdict.cause, Cause::blocked);
    EXPECT_DOUBLE_EQ(report.verdict.shares.sleeping, 1);
    EXPECT_EQ(report.waitPlace.function, "futex_wait_queue");
    EXPECT_THAT(reportText(report), HasSubstr("had not ended when the report was made"));
    EXPECT_THAT(reportText(report), HasSubstr("a lock or condition variable (futex)"));
    ASSERT_EQ(report.stack.size(), 2U);
    EXPECT_EQ(report.stack[1].frame.modulePath, "/lib/libc.so.6");
}

TEST(HangReport, AFrozenThreadIsStoppedWhateverItsStackSays) {
    for (const bool isFrozen : {true, false}) {
        TraceEncoder trace;
        trace.text("hung_left_state", "S").number("hung_frozen", isFrozen ? 1 : 0);
        trace.hang(kWindow.beginNs, kWindow.endNs, kHung, kHung).covered(500 * kMs, 2500 * kMs).attributes();
        trace.stack(kHung, kHung, {{.name = "[kernel]+0x10", .isKernel = true}});
        const HangReport report = read(trace);
        EXPECT_EQ(report.verdict.cause, isFrozen ? Cause::stopped : Cause::blocked);
        EXPECT_EQ(report.verdict.shares.stopped, isFrozen ? 1 : 0);
        const std::string text = reportText(report);
        EXPECT_EQ(text.find("waited for the freezer of its group\n") != std::string::npos, isFrozen) << text;
    }
}

TEST(HangReport, BusyAndStarvedNameWhoElseRan) {
    TraceEncoder trace = hang();
    trace.events(0, {switched(1000 * kMs, 0, 0, kHung), switched(1300 * kMs, kHung, 0, kWorker),
                     switched(1950 * kMs, kWorker, 0, kHung)});
    const HangReport report = read(trace);
    EXPECT_EQ(report.verdict.cause, Cause::starved);
    EXPECT_THAT(reportText(report), HasSubstr("meanwhile worker (20) of app ran 650.0 ms"));
    ASSERT_EQ(report.topUsers.size(), 2U);
    EXPECT_EQ(report.topUsers[0].thread.tid, kWorker);
    EXPECT_EQ(report.topUsers[1].ranNs, 350 * kMs);
}

TEST(HangReport, AThreadThatWaitsForACpuInAFileSystemWaitsForNothingElse) {
    TraceEncoder trace = hang();
    trace.events(0, {switched(1000 * kMs, kHung, 0, kWorker)});
    trace.stack(kHung, kHung, {{.name = "folio_wait_bit_common", .isKernel = true}});
    const HangReport report = read(trace);
    EXPECT_EQ(report.verdict.cause, Cause::starved);
    EXPECT_THAT(reportText(report), Not(HasSubstr("a page of a file")));
}

TEST(HangReport, APollingThreadIsBlockedAndItsTimerIsNotTheCulprit) {
    TraceEncoder trace = hang();
    std::vector<SchedEvent> events = {switched(1000 * kMs, kHung, kInterruptible, 0)};
    for (std::uint64_t at = 1010; at < 2000; at += 10) {
        events.push_back(woken(at * kMs, 0, kHung, true));
        events.push_back(switched(at * kMs + 1000, 0, 0, kHung));
        events.push_back(switched(at * kMs + 200'000, kHung, kInterruptible, 0));
    }
    trace.events(0, events, TraceEncoder::Form::compact);
    const HangReport report = read(trace);
    EXPECT_EQ(report.verdict.cause, Cause::blocked);
    EXPECT_TRUE(report.verdict.isPolling);
    EXPECT_FALSE(report.blocker);
    EXPECT_THAT(reportText(report), HasSubstr("it slept 100 times"));
    EXPECT_THAT(reportText(report), HasSubstr("woken by a timer or a device"));
}

TEST(HangReport, SaysFirstWhatItLacks) {
    TraceEncoder trace;
    trace.hang(kWindow.beginNs, kWindow.endNs, kHung, kHung).covered(1600 * kMs, 2500 * kMs);
    trace.number("lost.cpu1", 77).number("lost.cpu2", -1).text("missing.stacks", "the process is gone").attributes();
    const std::string text = reportText(read(trace));
    EXPECT_THAT(text, testing::StartsWith("File complete\nRecorder mapped, holds 40.0 % of the hang, from +0.600 s\n"
                                          "Lost on cpu1: 77 events\nLost on cpu2: not known how many events\n"
                                          "Missing: stacks: the process is gone\n"));
    EXPECT_THAT(text, HasSubstr("Verdict: unknown\n  only 0.0 % of the hang is known"));
}

TEST(HangReport, NamesFromTheFileCannotMoveTheTerminalsCursor) {
    TraceEncoder trace;
    trace.hang(kWindow.beginNs, kWindow.endNs, kHung, kHung).covered(0, 2500 * kMs);
    trace.text("missing.\x1b[2J", "\x1b[31m").text("recorder", "\x9b\xc2\x9b\n");
    trace.text("reason", "{\"Reason\":\"\x1b]0;x\x07\",\"ProcessPath\":\"/a/\\u202eb\\r\"}").attributes();
    trace.thread(kHung, kHung, "a\x1b[1mb").process(kHung, "\x07");
    trace.events(0, {switched(1000 * kMs, 77, 0, kHung), woken(1100 * kMs, 0, 78)});
    trace.stack(kHung, kHung, {{.name = "f\x08\x1b", .isKernel = true}}, "\x1bproblem");
    const HangReport report = read(trace);
    for (const std::string& text : {reportText(report), reportJson(report)}) {
        for (const char byte : text) {
            ASSERT_TRUE(static_cast<unsigned char>(byte) >= 0x20 || byte == '\n') << text;
            ASSERT_NE(byte, '\x7f');
        }
        EXPECT_THAT(text, Not(HasSubstr("\xc2\x9b")));
    }
    EXPECT_THAT(reportText(report), Not(HasSubstr("\xe2\x80\xae")));
    EXPECT_TRUE(nlohmann::json::accept(reportJson(report)));
}

TEST(HangReport, JsonHoldsTheVerdictWithItsTimes) {
    TraceEncoder trace = hang();
    trace.events(0, {switched(900 * kMs, 0, 0, kHung)});
    const auto json = nlohmann::json::parse(reportJson(read(trace)));
    EXPECT_EQ(json["verdict"]["cause"], "busy");
    EXPECT_EQ(json["verdict"]["times"]["running_ns"], 1000 * kMs);
    EXPECT_EQ(json["app"], "app");
    EXPECT_EQ(json["reason"]["ServiceName"], "HangTracer");
    EXPECT_EQ(json["began_realtime_ns"], 1'700'000'000'000'000'000);
    EXPECT_TRUE(json["completeness"]["complete"]);
}

TEST(HangReport, AFileWithoutAWindowIsNone) {
    EXPECT_FALSE(read(TraceEncoder().process(1, "x")).isHangReport);
    TraceEncoder reversed;
    reversed.hang(2000, 1000, 1, 1).attributes();
    EXPECT_FALSE(read(reversed).isHangReport);
    TraceEncoder empty;
    empty.hang(1000, 1000, 1, 1).attributes();
    EXPECT_FALSE(read(empty).isHangReport);
}

TEST(HangReport, AFileForWhichNoTimeWasAskedSaysThatAndWhatItLacks) {
    TraceEncoder trace;
    trace.hang(0, 0, 1, 1).text("missing.window", "no interval").attributes();
    const std::string text = reportText(read(trace));
    EXPECT_THAT(text, HasSubstr("no time lies between"));
    EXPECT_THAT(text, HasSubstr("Missing: window: no interval\n"));
    EXPECT_THAT(reportText(read(TraceEncoder().process(1, "x"))), HasSubstr("does not say which time was asked for"));
}

TEST(HangReport, ASwitchClampedToTheWindowCountsAtItsTrueTime) {
    // The thread left CPU 1 long before the window and came to CPU 0 after that; both stand at the window's begin.
    TraceEncoder trace;
    trace.hang(kWindow.beginNs, kWindow.endNs, kHung, kHung).covered(kWindow.beginNs, 2500 * kMs);
    trace.number("clamped.cpu0", 800 * kMs).number("clamped.cpu1", 900 * kMs).attributes();
    trace.events(0, {switched(kWindow.beginNs, 0, 0, kHung)});
    trace.events(1, {switched(kWindow.beginNs, kHung, kInterruptible, 0)});
    EXPECT_EQ(read(trace).verdict.cause, Cause::blocked);
}

}  // namespace
}  // namespace quorvix::report
