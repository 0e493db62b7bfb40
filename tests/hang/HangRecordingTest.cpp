#include "tests/hang/HangWorld.h"

namespace quorvix::test {
namespace {

using sim::CounterAction;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

class HangRecording : public HangWorld {
protected:
    HangRecording() { startWithHangTracing(); }

    void switchReports(bool on) {
        prefer("QuorvixEnableSwivex", on);
        refresh();
    }
    void spendAppCredits(QXProcessInfo& process) {
        for (int i = 0; i < 4; ++i) process.deductAppCredit();
    }
    Lines record(QXProcessInfo& process, std::string_view name = "main", bool saveSwivex = true) {
        return linesOf([&] { recordHang(process, name, 6000, saveSwivex); });
    }
    static constexpr const char* kDetected = "info: Mail: Hang detected 6.00s (main)";
};

TEST_F(HangRecording, AHangThatMayBeReportedIsReportedAndPaidFor) {
    QXProcessInfo& mail = watchedRecord();
    EXPECT_THAT(record(mail),
                ElementsAre(kDetected,
                            "info: Mail: Attempting to save swivex at "
                            "/var/root/Library/Caches/quorvixd/tmp/main-Mail-2026-01-15-120000.swivex",
                            "info: Mail: Moving swivex to spool: "
                            "/var/root/Library/Caches/quorvixd/spool/main-Mail-2026-01-15-120000.swivex\n",
                            "info: Mail Log credits: 4 -> 3", "info: Daily Log credits: 25 -> 24"));
    EXPECT_EQ(mail.appCredit(), 3u);
}

TEST_F(HangRecording, AHangWithoutAReportIsALineAndASample) {
    QXProcessInfo& mail = watchedRecord();
    spendAppCredits(mail);
    const auto counted = countedBy([&] { EXPECT_THAT(record(mail, "main", false), ElementsAre(kDetected)); });
    EXPECT_EQ(counted, (Counted{{CounterAction::push, "com.norvane.quorvix.main.Mail", 6000.0}}));
    EXPECT_THAT(device.libraries.opened(), IsEmpty());
}

TEST_F(HangRecording, AFenceHangIsCountedWithoutItsDuration) {
    QXProcessInfo& mail = watchedRecord();
    const auto counted = countedBy([&] {
        EXPECT_THAT(record(mail, "Fence-hang", false), ElementsAre("info: Mail: Hang detected 6.00s (Fence-hang)"));
    });
    EXPECT_EQ(counted, (Counted{{CounterAction::add, "com.norvane.quorvix.QXLogsFenceHang.PreSwivex", 1.0}}));
}

TEST_F(HangRecording, OnlyTheExactFenceNameIsAFenceHang) {
    QXProcessInfo& mail = watchedRecord();
    for (const std::string name : {"fence-hang", "Fence-hang ", "Fence-han", "Fence-hangs", "(null)"}) {
        const auto counted = countedBy([&] { record(mail, name, false); });
        EXPECT_EQ(counted, (Counted{{CounterAction::push, "com.norvane.quorvix." + name + ".Mail", 6000.0}}));
    }
}

TEST_F(HangRecording, NoReportWhileReportsAreSwitchedOff) {
    QXProcessInfo& mail = watchedRecord();
    switchReports(false);
    EXPECT_THAT(record(mail),
                ElementsAre(kDetected, "default: Mail: Quorvix swivex support is disabled, not saving a report!"));
}

TEST_F(HangRecording, TheSwitchIsTestedBeforeEverythingElse) {
    QXProcessInfo& mail = watchedRecord();
    spendAppCredits(mail);
    switchReports(false);
    const auto counted = countedBy([&] { EXPECT_EQ(record(mail).size(), 2u); });
    EXPECT_EQ(counted, (Counted{{CounterAction::push, "com.norvane.quorvix.main.Mail", 6000.0}}));
    EXPECT_THAT(device.libraries.opened(), IsEmpty());
}

TEST_F(HangRecording, TheLibraryIsTestedBeforeTheCredits) {
    QXProcessInfo& mail = watchedRecord();
    spendAppCredits(mail);
    device.libraries.removeSymbol(kTraceLibraryPath, "swivex_dump_output_with_options_sync");
    const auto counted = countedBy([&] {
        EXPECT_THAT(record(mail), ElementsAre(kDetected,
                                              "default: Mail: Tried to save swivex, but swivex support is not present "
                                              "on this device!"));
    });
    EXPECT_EQ(counted.size(), 1u);
    EXPECT_THAT(device.files.calls(), IsEmpty());
}

TEST_F(HangRecording, AnAppOutOfCreditsIsRefusedAndCountedTwice) {
    QXProcessInfo& mail = watchedRecord();
    spendAppCredits(mail);
    const auto counted = countedBy([&] {
        EXPECT_THAT(record(mail), ElementsAre(kDetected, "default: Mail is out of credits. Not saving a report!"));
    });
    EXPECT_EQ(counted, (Counted{{CounterAction::push, "com.norvane.quorvix.main.Mail", 6000.0},
                                {CounterAction::add, "com.norvane.quorvix.QXLogsMissedDueToProcessLimit.Total", 1.0},
                                {CounterAction::add, "com.norvane.quorvix.QXLogsMissedDueToProcessLimit.Mail", 1.0}}));
    EXPECT_EQ(hangState().dailyLogCredits, 25);
}

TEST_F(HangRecording, ADeviceOutOfDailyCreditsIsRefusedAndCountedTwice) {
    QXProcessInfo& mail = watchedRecord();
    hangState().dailyLogCredits = 0;
    const auto counted = countedBy([&] {
        EXPECT_THAT(record(mail), ElementsAre(kDetected,
                                              "default: Device is out of Daily Log credits, hit the Daily Log limit "
                                              "of 25. Not saving a report!"));
    });
    EXPECT_EQ(counted, (Counted{{CounterAction::push, "com.norvane.quorvix.main.Mail", 6000.0},
                                {CounterAction::add, "com.norvane.quorvix.QXLogsMissedDueToGlobalLimit.Total", 1.0},
                                {CounterAction::add, "com.norvane.quorvix.QXLogsMissedDueToGlobalLimit.Mail", 1.0}}));
    EXPECT_EQ(mail.appCredit(), 4u);
}

TEST_F(HangRecording, ANegativeDailyLimitIsShownUnsigned) {
    QXProcessInfo& mail = watchedRecord();
    QXProcessInfo::setMaxDailyLogs(-1);
    EXPECT_EQ(record(mail).back(),
              "default: Device is out of Daily Log credits, hit the Daily Log limit of 4294967295. Not saving a "
              "report!");
}

TEST_F(HangRecording, TheAppsCreditsAreTestedBeforeTheDevices) {
    QXProcessInfo& mail = watchedRecord();
    spendAppCredits(mail);
    hangState().dailyLogCredits = 0;
    EXPECT_EQ(record(mail).back(), "default: Mail is out of credits. Not saving a report!");
}

TEST_F(HangRecording, TheFourthReportIsTheLastOfAnApp) {
    QXProcessInfo& mail = watchedRecord();
    for (int i = 0; i < 5; ++i) {
        record(mail);
        advanceMs(1000);
    }
    EXPECT_EQ(traceLibrary.calls.size(), 4u);
    EXPECT_EQ(hangState().dailyLogCredits, 21);
}

TEST_F(HangRecording, TheLastDailyCreditPaysForAReport) {
    QXProcessInfo& mail = watchedRecord();
    hangState().dailyLogCredits = 1;
    EXPECT_EQ(record(mail).back(), "info: Daily Log credits: 1 -> 0");
}

TEST_F(HangRecording, AFailedReportIsNotPaidFor) {
    QXProcessInfo& mail = watchedRecord();
    traceLibrary.succeeds = false;
    EXPECT_EQ(record(mail).back(), "default: Mail: Unable to save swivex data to file.\n");
    EXPECT_EQ(mail.appCredit(), 4u);
    EXPECT_EQ(hangState().dailyLogCredits, 25);
}

TEST_F(HangRecording, DurationsAreRoundedByTheirFormats) {
    QXProcessInfo& mail = watchedRecord();
    // A tenth of a millisecond a tick, and a little more.
    serviceState().msPerTick = 0.1;
    EXPECT_EQ(linesOf([&] { mail.recordHang("main", 1, 0, 52104, true); }).front(),
              "info: Mail: Hang detected 5.21s (main)");
    EXPECT_THAT(traceLibrary.calls.at(0).reason, testing::HasSubstr(R"("Reason":"main-Mail: timeout 5210ms")"));
    ASSERT_EQ(device.counters.distribution("com.norvane.quorvix.main.Mail").size(), 1u);
    EXPECT_DOUBLE_EQ(device.counters.distribution("com.norvane.quorvix.main.Mail")[0], 5210.4);
}

TEST_F(HangRecording, AHangThatEndsBeforeItStartsLastsForAges) {
    QXProcessInfo& mail = watchedRecord();
    EXPECT_EQ(linesOf([&] { mail.recordHang("main", 1, 1, 0, true); }).front(),
              "info: Mail: Hang detected 18446744073709552.00s (main)");
    EXPECT_THAT(traceLibrary.calls.at(0).reason, testing::HasSubstr("timeout 18446744073709551616ms"));
}

TEST_F(HangRecording, ANameIsNeverTakenForAFormat) {
    QXProcessInfo& mail = watchedRecord(kPid, "/bin/%d%@");
    EXPECT_THAT(record(mail, "%s%n%@", false), ElementsAre("info: %d%@: Hang detected 6.00s (%s%n%@)"));
    EXPECT_EQ(device.counters.operations().back().key, "com.norvane.quorvix.%s%n%@.%d%@");
}

TEST_F(HangRecording, SwitchedOffInfoLinesChangeNothingElse) {
    QXProcessInfo& mail = watchedRecord();
    device.log.setEnabled(LogLevel::info, false);
    EXPECT_THAT(record(mail), IsEmpty());
    EXPECT_EQ(mail.appCredit(), 3u);
    EXPECT_THAT(device.counters.distribution("com.norvane.quorvix.main.Mail"), ElementsAre(6000.0));
    EXPECT_EQ(device.files.list(kSpool).size(), 1u);
}

TEST_F(HangRecording, SwitchedOffDefaultLinesChangeNothingElse) {
    QXProcessInfo& mail = watchedRecord();
    spendAppCredits(mail);
    device.log.setEnabled(LogLevel::standard, false);
    EXPECT_THAT(record(mail), ElementsAre(kDetected));
    EXPECT_EQ(device.counters.scalar("com.norvane.quorvix.QXLogsMissedDueToProcessLimit.Total"), 1);
}

}  // namespace
}  // namespace quorvix::test
