#include "tests/support/DaemonWorld.h"

namespace quorvix::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using sim::SimMessage;

constexpr std::uint64_t kMargin = 12'000'000;

SimMessage hang(std::int64_t startTime, std::int64_t endTime) {
    return SimMessage{}
        .int64("command", 3)
        .int64("startTime", startTime)
        .int64("endTime", endTime)
        .int64("threadID", 77)
        .string("name", "scroll");
}
SimMessage fenceBegin(std::int64_t name, std::int64_t startTime) {
    return SimMessage{}.int64("command", 6).int64("name", name).int64("startTime", startTime);
}
SimMessage fenceEnd(std::int64_t name, std::int64_t endTime) {
    return SimMessage{}.int64("command", 7).int64("name", name).int64("endTime", endTime);
}
SimMessage fenceBlown(std::int64_t startTime, std::int64_t endTime) {
    return SimMessage{}.int64("command", 8).int64("startTime", startTime).int64("endTime", endTime);
}

// Hangs and fences that clients tell of. Mail (412) is watched; the log is empty.
class HangCommands : public DaemonWorld {
protected:
    using DaemonWorld::DaemonWorld;
    void SetUp() override {
        startWithHangTracing();
        app = watch(412);
        device.log.clear();
    }
    void send(const SimMessage& message) { DaemonWorld::send(*app.client, message); }
    void fence(std::int64_t name, std::int64_t startTime, std::int64_t endTime) {
        send(fenceBegin(name, startTime));
        send(fenceEnd(name, endTime));
        device.log.clear();
    }
    // The one report that the hang led to; a fence's is written a second later.
    TraceLibraryScript::Call onlyReport() {
        advanceMs(1000);
        EXPECT_EQ(traceLibrary.calls.size(), 1u);
        return traceLibrary.calls.empty() ? TraceLibraryScript::Call{} : traceLibrary.calls[0];
    }
    bool fenceHangCounted() {
        return device.counters.scalar("com.norvane.quorvix.QXLogsFenceHang.PreSwivex").has_value();
    }

    App app;
};

class HangCommandsInDeviceTicks : public HangCommands {
protected:
    HangCommandsInDeviceTicks() : HangCommands(sim::SimTickClock::kDeviceTicks) {}
};

// 3: hang detected.

TEST_F(HangCommands, AHangIsRecordedAsTheClientTellsIt) {
    send(hang(10'000, 12'500));
    EXPECT_THAT(texts(), ElementsAre("Mail: Hang detected 2.50s (scroll)"));
    EXPECT_THAT(device.counters.distribution("com.norvane.quorvix.scroll.Mail"), ElementsAre(2500.0));
    EXPECT_THAT(traceLibrary.calls, IsEmpty());
}

TEST_F(HangCommands, AHangIsSavedWhenTheClientAsksForIt) {
    send(hang(10'000, 12'500).boolean("saveReport", true));
    const auto report = onlyReport();
    EXPECT_EQ(report.minTimestamp, 10'000u);
    EXPECT_EQ(report.maxTimestamp, 12'500u);
    EXPECT_EQ(report.reason, R"({"Reason":"scroll-Mail: timeout 2500ms","ServiceName":"scroll",)"
                             R"("ProcessPath":"/Applications/Mail.app/Mail","PID":412,"ThreadID":77,"StartTime":10000,)"
                             R"("EndTime":12500})");
}

TEST_F(HangCommands, AWishOfAnotherTypeIsNoWish) {
    send(hang(10'000, 12'500).int64("saveReport", 1));
    EXPECT_THAT(traceLibrary.calls, IsEmpty());
}

TEST_F(HangCommands, AHangWithoutANameIsNull) {
    send(SimMessage{}.int64("command", 3).int64("startTime", 0).int64("endTime", 1000));
    EXPECT_THAT(texts(), ElementsAre("Mail: Hang detected 1.00s ((null))"));
    EXPECT_THAT(device.counters.distribution("com.norvane.quorvix.(null).Mail"), ElementsAre(1000.0));
}

TEST_F(HangCommands, AHangOfNoTimesIsOneOfNoLength) {
    send(SimMessage{}.int64("command", 3).uint64("startTime", 5).string("name", "scroll"));
    EXPECT_THAT(texts(), ElementsAre("Mail: Hang detected 0.00s (scroll)"));
}

TEST_F(HangCommands, AHangOfAProcessThatIsNotWatchedIsRefused) {
    const auto other = connect(500, "/Applications/Maps.app/Maps");
    device.log.clear();
    DaemonWorld::send(*other, hang(10'000, 12'500));
    EXPECT_THAT(texts(), ElementsAre("Got hang detected message for a pid we're not monitoring: 500"));
    EXPECT_EQ(levelOf(texts()[0]), LogLevel::standard);
    EXPECT_THAT(device.counters.operations(), IsEmpty());
}

TEST_F(HangCommands, AHangIsTheSendersNotTheMessages) {
    send(hang(10'000, 12'500).int64("pid", 500));
    EXPECT_THAT(texts(), ElementsAre("Mail: Hang detected 2.50s (scroll)"));
}

// What belongs to a fence.

TEST_F(HangCommands, AnOverlapOf400MsLeavesTheHangTheApps) {
    fence(7, 10'000, 10'400);
    send(hang(9'000, 12'000).boolean("saveReport", true));
    EXPECT_THAT(texts().at(0), "Mail: Hang detected 3.00s (scroll)");
    EXPECT_FALSE(fenceHangCounted());
    EXPECT_EQ(onlyReport().minTimestamp, 9'000u);
}

TEST_F(HangCommands, AnOverlapOf401MsMakesTheHangTheFences) {
    fence(7, 10'000, 10'401);
    send(hang(9'000, 12'000));
    EXPECT_THAT(texts(), ElementsAre("Mail: Hang detected 24003.00s (Fence-hang)"));
    EXPECT_TRUE(fenceHangCounted());
    EXPECT_THAT(device.counters.distribution("com.norvane.quorvix.scroll.Mail"), IsEmpty());
}

TEST_F(HangCommands, TwoFencesAddUp) {
    fence(7, 10'000, 10'250);
    fence(8, 11'000, 11'250);
    send(hang(9'000, 12'000));
    EXPECT_THAT(texts(), ElementsAre("Mail: Hang detected 24003.00s (Fence-hang)"));
}

TEST_F(HangCommands, AHangInsideAFenceIsWidenedByTheMarginOnBothSides) {
    send(fenceBegin(7, 20'000'000));
    device.log.clear();
    send(hang(20'001'000, 20'001'500).boolean("saveReport", true));
    EXPECT_EQ(texts()[0], "Mail: Hang detected 24000.50s (Fence-hang)");
    const auto report = onlyReport();
    EXPECT_EQ(report.minTimestamp, 20'001'000 - kMargin);
    EXPECT_EQ(report.maxTimestamp, 20'001'500 + kMargin);
    EXPECT_EQ(report.reason,
              R"({"Reason":"Fence-hang-Mail: timeout 24000500ms","ServiceName":"Fence-hang",)"
              R"("ProcessPath":"/Applications/Mail.app/Mail","PID":412,"ThreadID":77,"StartTime":8001000,)"
              R"("EndTime":32001500})");
}

TEST_F(HangCommands, TheMarginWrapsBelowTickZero) {
    send(fenceBegin(7, 0));
    send(hang(0, 500).boolean("saveReport", true));
    const auto report = onlyReport();
    EXPECT_EQ(report.minTimestamp, std::uint64_t{0} - kMargin);
    EXPECT_EQ(report.maxTimestamp, 500 + kMargin);
    EXPECT_TRUE(report.reason.ends_with(R"("StartTime":-12000000,"EndTime":12000500})")) << report.reason;
}

TEST_F(HangCommands, AFenceHangIsSavedOnlyWhenTheClientAsksForIt) {
    send(fenceBegin(7, 0));
    send(hang(0, 500).boolean("saveReport", false));
    advanceMs(1000);
    EXPECT_THAT(traceLibrary.calls, IsEmpty());
}

TEST_F(HangCommands, FencesOfOneClientCountForAnother) {
    DaemonWorld::send(*connect(500, "/Applications/Maps.app/Maps"), fenceBegin(7, 0));
    send(hang(1'000, 2'000));
    EXPECT_EQ(texts().back(), "Mail: Hang detected 24001.00s (Fence-hang)");
}

TEST_F(HangCommandsInDeviceTicks, EachFencesShareIsCutToWholeMilliseconds) {
    // Twice 200.9 ms: 200, then 400.9 cut to 400, although it is 401.8 in all.
    constexpr std::int64_t kShare = 2009 * 2400;
    fence(7, 24'000'000, 24'000'000 + kShare);
    fence(8, 48'000'000, 48'000'000 + kShare);
    send(hang(24'000'000, 72'000'000));
    EXPECT_THAT(texts(), ElementsAre("Mail: Hang detected 2.00s (scroll)"));
    // Two whole milliseconds more make it 402.
    fence(9, 60'000'000, 60'000'000 + 48'001);
    send(hang(24'000'000, 72'000'000));
    EXPECT_THAT(texts(), ElementsAre("Mail: Hang detected 3.00s (Fence-hang)"));
}

TEST_F(HangCommandsInDeviceTicks, TheMarginIsHalfASecondOnEitherSide) {
    fence(7, 24'000'000, 48'000'000);
    send(hang(24'000'000, 48'000'000).boolean("saveReport", true));
    EXPECT_EQ(texts()[0], "Mail: Hang detected 2.00s (Fence-hang)");
    EXPECT_EQ(onlyReport().minTimestamp, 12'000'000u);
}

// 6, 7: fence begin and end.

TEST_F(HangCommands, AFencesBeginAndEndAreNoted) {
    send(fenceBegin(7, 100));
    send(fenceEnd(7, 200));
    EXPECT_THAT(texts(), ElementsAre("QXFenceTracking: Fence begin", "QXFenceTracking: Fence end"));
    EXPECT_EQ(levelOf("QXFenceTracking: Fence begin"), LogLevel::info);
    EXPECT_EQ(levelOf("QXFenceTracking: Fence end"), LogLevel::info);
    EXPECT_EQ(serviceState().fenceTable.slots()[0].endTime, 200);
}

TEST_F(HangCommands, AnEndWithoutItsFenceIsNoted) {
    send(fenceEnd(7, 200));
    EXPECT_THAT(texts(), ElementsAre("QXFenceTracking: Fence end",
                                     "QXFenceTracking: Fence end, failed to find corresponding fence(7)"));
    EXPECT_EQ(levelOf(texts()[1]), LogLevel::standard);
}

TEST_F(HangCommands, AFenceThatWasOverwrittenIsNotFound) {
    for (std::int64_t name = 1; name <= 6; ++name) send(fenceBegin(name, 100));
    device.log.clear();
    send(fenceEnd(1, 200));
    EXPECT_EQ(texts().back(), "QXFenceTracking: Fence end, failed to find corresponding fence(1)");
    send(fenceEnd(2, 200));
    EXPECT_EQ(texts().back(), "QXFenceTracking: Fence end");
}

TEST_F(HangCommands, ANegativeNameIsShownUnsigned) {
    send(fenceEnd(-1, 200));
    EXPECT_EQ(texts().back(), "QXFenceTracking: Fence end, failed to find corresponding fence(18446744073709551615)");
}

TEST_F(HangCommands, AFenceWithTextAsItsNameIsFenceZero) {
    send(SimMessage{}.int64("command", 6).string("name", "scroll").int64("startTime", 100));
    send(SimMessage{}.int64("command", 7).string("name", "other").int64("endTime", 200));
    EXPECT_THAT(texts(), ElementsAre("QXFenceTracking: Fence begin", "QXFenceTracking: Fence end"));
    EXPECT_EQ(serviceState().fenceTable.slots()[0].endTime, 200);
}

TEST_F(HangCommands, AnEndOfFenceZeroFindsAnEmptySlot) {
    send(fenceEnd(0, 200));
    EXPECT_THAT(texts(), ElementsAre("QXFenceTracking: Fence end"));
}

TEST_F(HangCommands, FencesOutliveTheirClient) {
    send(fenceBegin(7, 0));
    app.client->die();
    device.scheduler.runPending();
    app = watch(413);
    device.log.clear();
    send(hang(0, 500));
    EXPECT_THAT(texts(), ElementsAre("Mail: Hang detected 24000.50s (Fence-hang)"));
}

// 8: fence blown.

TEST_F(HangCommands, ABlownFenceIsAHangOfAWatchedProcess) {
    DaemonWorld::send(*connect(500, "/Applications/Maps.app/Maps"), fenceBlown(20'000'000, 20'006'000));
    EXPECT_EQ(texts()[1], "QXFenceTracking: Fence blown");
    EXPECT_EQ(texts()[2], "Mail: Hang detected 24006.00s (Fence-hang)");
    EXPECT_EQ(levelOf("QXFenceTracking: Fence blown"), LogLevel::standard);
    EXPECT_TRUE(fenceHangCounted());
}

TEST_F(HangCommands, ABlownFenceIsSavedWithoutAThreadAndWithMargins) {
    send(fenceBlown(20'000'000, 20'006'000));
    const auto report = onlyReport();
    EXPECT_EQ(report.minTimestamp, 20'000'000 - kMargin);
    EXPECT_EQ(report.maxTimestamp, 20'006'000 + kMargin);
    EXPECT_NE(report.reason.find(R"("ThreadID":0,)"), std::string::npos) << report.reason;
}

TEST_F(HangCommands, ABlownFenceIsNotSavedWhereReportsAreOff) {
    prefer("QuorvixEnableSwivex", false);
    refresh();
    device.log.clear();
    // The message's own wish counts for nothing here: it would else lead to the line that reports are off.
    send(fenceBlown(20'000'000, 20'006'000).boolean("saveReport", true));
    advanceMs(1000);
    EXPECT_THAT(texts(), ElementsAre("QXFenceTracking: Fence blown", "Mail: Hang detected 24006.00s (Fence-hang)"));
}

TEST_F(HangCommands, ABlownFenceNeedsAWatchedProcess) {
    send(SimMessage{}.int64("command", 2));
    device.log.clear();
    send(fenceBlown(20'000'000, 20'006'000));
    EXPECT_THAT(texts(),
                ElementsAre("QXFenceTracking: Fence blown", "Got Fence Blown message but can't find processForHangs"));
    EXPECT_EQ(levelOf(texts()[1]), LogLevel::standard);
    EXPECT_FALSE(fenceHangCounted());
}

TEST_F(HangCommands, ABlownFenceAtTickZeroWraps) {
    send(fenceBlown(0, 0));
    EXPECT_EQ(onlyReport().minTimestamp, std::uint64_t{0} - kMargin);
    EXPECT_TRUE(hasText("Mail: Hang detected 24000.00s (Fence-hang)"));
}

TEST_F(HangCommands, ABlownFenceLeavesTheTableAlone) {
    send(fenceBegin(7, 100));
    send(fenceBlown(100, 9'000));
    EXPECT_EQ(serviceState().fenceTable.slots()[0].endTime, FenceTable::kOpenEnd);
}

}  // namespace
}  // namespace quorvix::test
