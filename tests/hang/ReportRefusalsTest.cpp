#include "hang/ReportRefusals.h"

#include "tests/hang/HangWorld.h"

namespace quorvix::test {
namespace {

class ReportRefusalsOfDaemon : public HangWorld {
protected:
    ReportRefusalsOfDaemon() { startWithHangTracing(); }
    std::uint64_t count(RefusalReason reason) const { return hangState().refusals.count(reason); }
};

TEST(ReportRefusals, KeepsTheLastAndCountsAll) {
    ReportRefusals refusals;
    for (std::size_t i = 0; i <= ReportRefusals::kMostKept; ++i) {
        refusals.add("app", std::to_string(i), RefusalReason::appCredits, i);
    }
    EXPECT_EQ(refusals.count(RefusalReason::appCredits), ReportRefusals::kMostKept + 1);
    EXPECT_EQ(refusals.last().size(), ReportRefusals::kMostKept);
    EXPECT_EQ(refusals.last().front().hang, std::to_string(ReportRefusals::kMostKept));
    EXPECT_EQ(refusals.last().back().hang, "1");
}

TEST(ReportRefusals, CutsWhatAnAppMadeLong) {
    ReportRefusals refusals;
    refusals.add(std::string(ReportRefusals::kLongestName, 'a'), std::string(70'000, 'h'), RefusalReason::noLibrary, 0);
    EXPECT_EQ(refusals.last().front().app.size(), ReportRefusals::kLongestName);
    EXPECT_EQ(refusals.last().front().hang.size(), ReportRefusals::kLongestName);
}

TEST_F(ReportRefusalsOfDaemon, AnAppOutOfCreditsIsNotedWithItsHang) {
    QXProcessInfo& mail = watchedRecord();
    for (int i = 0; i < 4; ++i) recordHang(mail, "main");
    EXPECT_EQ(count(RefusalReason::appCredits), 0u);
    recordHang(mail, "scroll");
    EXPECT_EQ(count(RefusalReason::appCredits), 1u);
    EXPECT_EQ(hangState().refusals.last().front().app, "Mail");
    EXPECT_EQ(hangState().refusals.last().front().hang, "scroll");
}

TEST_F(ReportRefusalsOfDaemon, AHangThatAsksForNoReportIsNotRefusedOne) {
    QXProcessInfo& mail = watchedRecord();
    hangState().dailyLogCredits = 0;
    recordHang(mail, "main", 6000, false);
    EXPECT_EQ(count(RefusalReason::dailyLimit), 0u);
    recordHang(mail, "main");
    EXPECT_EQ(count(RefusalReason::dailyLimit), 1u);
}

TEST_F(ReportRefusalsOfDaemon, ReportsThatAreSwitchedOffAreRefusedFirst) {
    QXProcessInfo& mail = watchedRecord();
    prefer("QuorvixEnableSwivex", false);
    refresh();
    hangState().dailyLogCredits = 0;
    recordHang(mail, "main");
    EXPECT_EQ(count(RefusalReason::switchedOff), 1u);
    EXPECT_EQ(count(RefusalReason::dailyLimit), 0u);
}

TEST_F(ReportRefusalsOfDaemon, ASecondFenceHangWaitsForTheFirst) {
    QXProcessInfo& mail = watchedRecord();
    recordHang(mail, "Fence-hang");
    EXPECT_EQ(count(RefusalReason::fencePending), 0u);
    recordHang(mail, "Fence-hang");
    EXPECT_EQ(count(RefusalReason::fencePending), 1u);
}

}  // namespace
}  // namespace quorvix::test
