#include "tests/hang/HangWorld.h"

namespace quorvix::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kDetected = "info: Mail: Hang detected 6.00s (Fence-hang)";
constexpr const char* kRefused =
    "default: Mail: Fence-hang, but waiting for FenceHangCapture - not saving another report!";

class FenceHang : public HangWorld {
protected:
    FenceHang() { startWithHangTracing(); }

    Lines fenceHang(QXProcessInfo& process) {
        return linesOf([&] { recordHang(process, "Fence-hang"); });
    }
    Lines linesAfterMs(std::int64_t ms) {
        return linesOf([&] { advanceMs(ms); });
    }
    bool pending() const { return hangState().fenceHangCapturePending; }
};

TEST_F(FenceHang, IsCapturedOneSecondLate) {
    QXProcessInfo& mail = watchedRecord();
    EXPECT_THAT(fenceHang(mail), ElementsAre(kDetected));
    EXPECT_TRUE(pending());
    EXPECT_THAT(linesAfterMs(999), IsEmpty());
    EXPECT_THAT(linesAfterMs(1),
                ElementsAre("info: Mail: Attempting to save swivex at "
                            "/var/root/Library/Caches/quorvixd/tmp/Fence-hang-Mail-2026-01-15-120001.swivex",
                            "info: Mail: Moving swivex to spool: "
                            "/var/root/Library/Caches/quorvixd/spool/Fence-hang-Mail-2026-01-15-120001.swivex\n",
                            "info: Mail Log credits: 4 -> 3", "info: Daily Log credits: 25 -> 24"));
    EXPECT_FALSE(pending());
}

TEST_F(FenceHang, TheReportDescribesTheHangAndNotTheTimeOfItsCapture) {
    fenceHang(watchedRecord());
    advanceMs(1000);
    ASSERT_EQ(traceLibrary.calls.size(), 1u);
    EXPECT_EQ(traceLibrary.calls[0].reason, R"({"Reason":"Fence-hang-Mail: timeout 6000ms","ServiceName":"Fence-hang",)"
                                            R"("ProcessPath":"/Applications/Mail.app/Mail","PID":412,"ThreadID":77,)"
                                            R"("StartTime":994000,"EndTime":1000000})");
    EXPECT_EQ(traceLibrary.calls[0].minTimestamp, 994'000u);
    EXPECT_EQ(traceLibrary.calls[0].maxTimestamp, 1'000'000u);
}

TEST_F(FenceHang, ASecondOneWhileTheFirstIsPendingIsRefusedAndCostsNothing) {
    QXProcessInfo& mail = watchedRecord();
    fenceHang(mail);
    advanceMs(999);
    EXPECT_THAT(fenceHang(mail), ElementsAre(kDetected, kRefused));
    advanceMs(5000);
    EXPECT_EQ(traceLibrary.calls.size(), 1u);
    EXPECT_EQ(mail.appCredit(), 3u);
    EXPECT_EQ(hangState().dailyLogCredits, 24);
    EXPECT_EQ(device.counters.scalar("com.norvane.quorvix.QXLogsFenceHang.PreSwivex"), 2);
}

TEST_F(FenceHang, ASecondOneRightAfterTheCaptureIsCapturedToo) {
    QXProcessInfo& mail = watchedRecord();
    fenceHang(mail);
    advanceMs(1000);
    EXPECT_THAT(fenceHang(mail), ElementsAre(kDetected));
    advanceMs(1000);
    EXPECT_EQ(traceLibrary.calls.size(), 2u);
}

TEST_F(FenceHang, OneCaptureIsPendingForTheWholeDevice) {
    fenceHang(watchedRecord());
    QXProcessInfo& news = watchedRecord(500, "/bin/News");
    EXPECT_EQ(fenceHang(news).back(),
              "default: News: Fence-hang, but waiting for FenceHangCapture - not saving another report!");
}

TEST_F(FenceHang, OtherHangsDoNotWaitForACapture) {
    QXProcessInfo& mail = watchedRecord();
    fenceHang(mail);
    recordHang(mail, "main");
    EXPECT_EQ(traceLibrary.calls.size(), 1u);
    advanceMs(1000);
    EXPECT_EQ(traceLibrary.calls.size(), 2u);
}

TEST_F(FenceHang, CreditsAreTestedBeforeTheWaitForACapture) {
    QXProcessInfo& mail = watchedRecord();
    fenceHang(mail);
    hangState().appCredits["Mail"] = 0;
    EXPECT_THAT(fenceHang(mail), ElementsAre(kDetected, "default: Mail is out of credits. Not saving a report!"));
}

TEST_F(FenceHang, WithoutCreditsNothingIsScheduled) {
    QXProcessInfo& mail = watchedRecord();
    hangState().dailyLogCredits = 0;
    EXPECT_EQ(fenceHang(mail).size(), 2u);
    EXPECT_FALSE(pending());
    advanceMs(1000);
    EXPECT_THAT(traceLibrary.calls, IsEmpty());
}

TEST_F(FenceHang, CreditsThatRanOutDuringTheDelayGoBelow) {
    QXProcessInfo& mail = watchedRecord();
    fenceHang(mail);
    hangState().appCredits["Mail"] = 0;
    hangState().dailyLogCredits = 0;
    const Lines written = linesAfterMs(1000);
    ASSERT_EQ(written.size(), 4u);
    EXPECT_EQ(written[2], "info: Mail Log credits: 0 -> 0");
    EXPECT_EQ(written[3], "info: Daily Log credits: 0 -> -1");
}

TEST_F(FenceHang, AFailedCaptureCostsNothingAndLetsTheNextOneIn) {
    QXProcessInfo& mail = watchedRecord();
    traceLibrary.succeeds = false;
    fenceHang(mail);
    EXPECT_EQ(linesAfterMs(1000).back(), "default: Mail: Unable to save swivex data to file.\n");
    EXPECT_EQ(mail.appCredit(), 4u);
    EXPECT_FALSE(pending());
    EXPECT_THAT(fenceHang(mail), ElementsAre(kDetected));
}

TEST_F(FenceHang, ACaptureHappensAlsoWhenReportsWereSwitchedOffMeanwhile) {
    fenceHang(watchedRecord());
    settings().swivexEnabled = false;
    advanceMs(1000);
    EXPECT_EQ(traceLibrary.calls.size(), 1u);
}

TEST_F(FenceHang, ARecordThatLeftTheRegistryKeepsItsMappingUntilTheCapture) {
    fenceHang(watchedRecord());
    const auto mapping = device.regions.lastMapping();
    EXPECT_THAT(linesOf([] { QXProcessInfo::stopWatchingPid(kPid); }), IsEmpty());
    EXPECT_EQ(device.regions.unmapCount(mapping.address), 0u);
    const Lines written = linesAfterMs(1000);
    EXPECT_EQ(written.back(), "debug: dealloc for Mail");
    EXPECT_EQ(device.regions.unmapCount(mapping.address), 1u);
    EXPECT_EQ(device.files.list(kSpool).size(), 1u);
}

TEST_F(FenceHang, AFenceHangWithoutAReportSchedulesNothing) {
    QXProcessInfo& mail = watchedRecord();
    recordHang(mail, "Fence-hang", 6000, false);
    EXPECT_FALSE(pending());
}

// A slot may carry the name too.
TEST_F(FenceHang, ASlotOfThatNameTakesTheDelayedPath) {
    App app = watch(kPid);
    app.begin(0, now() - 6000, "Fence-hang");
    QXProcessInfo::checkForHangTimeouts(now());
    EXPECT_TRUE(pending());
    EXPECT_THAT(traceLibrary.calls, IsEmpty());
    advanceMs(1000);
    EXPECT_EQ(traceLibrary.calls.size(), 1u);
}

}  // namespace
}  // namespace quorvix::test
