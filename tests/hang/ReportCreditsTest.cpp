#include <limits>

#include "tests/hang/HangWorld.h"

namespace quorvix::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

constexpr std::int32_t kLowest = std::numeric_limits<std::int32_t>::min();
constexpr std::int32_t kHighest = std::numeric_limits<std::int32_t>::max();

class ReportCredits : public HangWorld {
protected:
    ReportCredits() { startWithHangTracing(); }

    static void deduct(QXProcessInfo& process, int times) {
        for (int i = 0; i < times; ++i) process.deductAppCredit();
    }
    static void writeReports(int count) {
        for (int i = 0; i < count; ++i) QXProcessInfo::deductDailyCredit();
    }
    std::optional<std::int64_t> generated() {
        return device.counters.scalar("com.norvane.quorvix.QXLogsGeneratedAtDailyReset");
    }
};

TEST_F(ReportCredits, AnAppNeverSeenHasAllFour) {
    QXProcessInfo& mail = watchedRecord();
    EXPECT_THAT(linesOf([&] { EXPECT_TRUE(mail.checkAppCredit()); }), IsEmpty());
    EXPECT_EQ(mail.appCredit(), 4u);
    EXPECT_THAT(appCredits(), IsEmpty());
}

TEST_F(ReportCredits, AnAppRunsOutAfterFourReportsAndStaysAtNothing) {
    QXProcessInfo& mail = watchedRecord();
    EXPECT_THAT(linesOf([&] { deduct(mail, 3); }),
                ElementsAre("info: Mail Log credits: 4 -> 3", "info: Mail Log credits: 3 -> 2",
                            "info: Mail Log credits: 2 -> 1"));
    EXPECT_TRUE(mail.checkAppCredit());
    EXPECT_THAT(linesOf([&] { deduct(mail, 1); }), ElementsAre("info: Mail Log credits: 1 -> 0"));
    EXPECT_FALSE(mail.checkAppCredit());
    EXPECT_THAT(linesOf([&] { deduct(mail, 1); }), ElementsAre("info: Mail Log credits: 0 -> 0"));
    EXPECT_THAT(appCredits(), ElementsAre(Pair("Mail", 0u)));
}

TEST_F(ReportCredits, AppsOfOneNameShareTheirCredits) {
    QXProcessInfo& mail = watchedRecord(1, "/Applications/Mail.app/Mail");
    QXProcessInfo& other = watchedRecord(2, "/opt/Mail");
    deduct(mail, 4);
    EXPECT_FALSE(other.checkAppCredit());
}

TEST_F(ReportCredits, ReplenishingNobodySaysNothing) {
    EXPECT_THAT(linesOf([] { QXProcessInfo::replenishAppCredits(); }), IsEmpty());
}

TEST_F(ReportCredits, ReplenishingGivesOneCreditBack) {
    QXProcessInfo& mail = watchedRecord();
    deduct(mail, 4);
    EXPECT_THAT(linesOf([] { QXProcessInfo::replenishAppCredits(); }),
                ElementsAre("info: Mail credits increased to: 1"));
    EXPECT_THAT(appCredits(), ElementsAre(Pair("Mail", 1u)));
    EXPECT_TRUE(mail.checkAppCredit());
}

TEST_F(ReportCredits, AnAppBackAtFourIsForgotten) {
    QXProcessInfo& mail = watchedRecord();
    deduct(mail, 2);
    QXProcessInfo::replenishAppCredits();
    EXPECT_THAT(appCredits(), ElementsAre(Pair("Mail", 3u)));
    EXPECT_THAT(linesOf([] { QXProcessInfo::replenishAppCredits(); }),
                ElementsAre("info: Mail credits increased to: 4"));
    EXPECT_THAT(appCredits(), IsEmpty());
    EXPECT_EQ(mail.appCredit(), 4u);
}

TEST_F(ReportCredits, ReplenishingReachesEveryApp) {
    deduct(watchedRecord(1, "/bin/full"), 1);
    deduct(watchedRecord(2, "/bin/half"), 2);
    deduct(watchedRecord(3, "/bin/other"), 1);
    QXProcessInfo::replenishAppCredits();
    EXPECT_THAT(appCredits(), ElementsAre(Pair("half", 3u)));
}

TEST_F(ReportCredits, CreditsOutliveTheAppsThatUsedThem) {
    deduct(watchedRecord(), 4);
    QXProcessInfo::stopWatchingAllPids();
    EXPECT_FALSE(watchedRecord().checkAppCredit());
}

TEST_F(ReportCredits, TheDayAllowsTwentyFiveReports) {
    EXPECT_EQ(hangState().maxDailyLogs, 25);
    writeReports(24);
    EXPECT_TRUE(QXProcessInfo::checkDailyCredit());
    EXPECT_THAT(linesOf([] { writeReports(1); }), ElementsAre("info: Daily Log credits: 1 -> 0"));
    EXPECT_FALSE(QXProcessInfo::checkDailyCredit());
}

TEST_F(ReportCredits, DailyCreditsGoBelowZero) {
    writeReports(25);
    EXPECT_THAT(linesOf([] { writeReports(2); }),
                ElementsAre("info: Daily Log credits: 0 -> -1", "info: Daily Log credits: -1 -> -2"));
    EXPECT_FALSE(QXProcessInfo::checkDailyCredit());
}

TEST_F(ReportCredits, DailyCreditsWrapAtTheirLowestValue) {
    hangState().dailyLogCredits = kLowest;
    EXPECT_THAT(linesOf([] { writeReports(1); }), ElementsAre("info: Daily Log credits: -2147483648 -> 2147483647"));
    EXPECT_EQ(hangState().dailyLogCredits, kHighest);
}

TEST_F(ReportCredits, TheResetReportsTheDayAndRestoresTheCredits) {
    writeReports(7);
    const auto counted = countedBy([&] {
        EXPECT_THAT(linesOf([] { QXProcessInfo::resetDailyLogCredits(); }),
                    ElementsAre("info: Hang Logs Daily Credits reset from 18 to 25"));
    });
    EXPECT_EQ(counted, (Counted{{sim::CounterAction::set, "com.norvane.quorvix.QXLogsGeneratedAtDailyReset", 7.0}}));
    EXPECT_EQ(hangState().dailyLogCredits, 25);
}

TEST_F(ReportCredits, ADayWithoutReportsCountsZero) {
    QXProcessInfo::resetDailyLogCredits();
    EXPECT_EQ(generated(), 0);
}

TEST_F(ReportCredits, ANewLimitKeepsTheDaysCount) {
    writeReports(12);
    EXPECT_THAT(linesOf([] { QXProcessInfo::setMaxDailyLogs(10); }),
                ElementsAre("info: Max Daily Log Limit: 25 -> 10", "info: Daily Log credits: 13 -> -2"));
    EXPECT_FALSE(QXProcessInfo::checkDailyCredit());
    EXPECT_THAT(linesOf([] { QXProcessInfo::resetDailyLogCredits(); }),
                ElementsAre("info: Hang Logs Daily Credits reset from -2 to 10"));
    EXPECT_EQ(generated(), 12);
    EXPECT_EQ(hangState().dailyLogCredits, 10);
}

TEST_F(ReportCredits, TheDaysCountItselfAsLimitLeavesNothing) {
    writeReports(12);
    QXProcessInfo::setMaxDailyLogs(12);
    EXPECT_FALSE(QXProcessInfo::checkDailyCredit());
    QXProcessInfo::setMaxDailyLogs(13);
    EXPECT_TRUE(QXProcessInfo::checkDailyCredit());
}

TEST_F(ReportCredits, ALimitSetBeforeAnyReportIsTheDaysCredit) {
    QXProcessInfo::setMaxDailyLogs(3);
    EXPECT_EQ(hangState().maxDailyLogs, 3);
    EXPECT_EQ(hangState().dailyLogCredits, 3);
}

TEST_F(ReportCredits, TheSameLimitAgainChangesNothing) {
    writeReports(5);
    EXPECT_THAT(linesOf([] { QXProcessInfo::setMaxDailyLogs(25); }),
                ElementsAre("info: Max Daily Log Limit: 25 -> 25", "info: Daily Log credits: 20 -> 20"));
}

// The limit is a preference and may be anything: the sums wrap, and the day's count survives that.
TEST_F(ReportCredits, AWildLimitWrapsAndKeepsTheDaysCount) {
    writeReports(12);
    EXPECT_THAT(
        linesOf([] { QXProcessInfo::setMaxDailyLogs(kLowest); }),
        ElementsAre("info: Max Daily Log Limit: 25 -> -2147483648", "info: Daily Log credits: 13 -> 2147483636"));
    QXProcessInfo::resetDailyLogCredits();
    EXPECT_EQ(generated(), 12);
    EXPECT_EQ(hangState().dailyLogCredits, kLowest);
}

TEST_F(ReportCredits, ARestartedDaemonHasFullCredits) {
    deduct(watchedRecord(), 4);
    writeReports(25);
    QXProcessInfo::stopWatchingAllPids();
    resetHangState();
    EXPECT_TRUE(QXProcessInfo::checkDailyCredit());
    EXPECT_THAT(appCredits(), IsEmpty());
}

}  // namespace
}  // namespace quorvix::test
