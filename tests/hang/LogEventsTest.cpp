#include "tests/hang/HangWorld.h"

// The events beside the lines: what readers of the journal find without looking at texts.

namespace quorvix::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class LogEvents : public HangWorld {
protected:
    LogEvents() { startWithHangTracing(); }

    // The events of a hang of six seconds, as "kind reason".
    std::vector<std::string> eventsOfAHang(std::string_view name = "main", bool saveReport = true) {
        device.log.clear();
        recordHang(*QXProcessInfo::processForPid(kPid), name, 6000, saveReport);
        return events();
    }
    std::vector<std::string> events() {
        static constexpr const char* kKinds[] = {"none",        "hang",       "written", "refused",
                                                 "daily reset", "activation", "snapshot"};
        std::vector<std::string> found;
        for (const auto& [event, text] : device.log.events()) {
            found.push_back(kKinds[static_cast<std::size_t>(event.kind)]);
            if (!event.reason.empty()) found.back() += " " + std::string(event.reason);
        }
        return found;
    }
};

TEST_F(LogEvents, AReportIsWrittenWhenItIsInItsPlace) {
    watchedRecord();
    EXPECT_THAT(eventsOfAHang(), ElementsAre("hang", "written"));
    EXPECT_EQ(device.log.events().back().second,
              "Report written: /var/root/Library/Caches/quorvixd/spool/main-Mail-2026-01-15-120000.swivex");
}

TEST_F(LogEvents, AHangThatWantsNoReportIsAHangOnly) {
    watchedRecord();
    EXPECT_THAT(eventsOfAHang("main", false), ElementsAre("hang"));
}

TEST_F(LogEvents, EveryRefusalHasItsReason) {
    QXProcessInfo& mail = watchedRecord();
    hangState().dailyLogCredits = 0;
    EXPECT_THAT(eventsOfAHang(), ElementsAre("hang", "refused daily-limit"));
    for (int i = 0; i < 4; ++i) mail.deductAppCredit();
    EXPECT_THAT(eventsOfAHang(), ElementsAre("hang", "refused app-credits"));
    prefer("QuorvixEnableSwivex", false);
    refresh();
    EXPECT_THAT(eventsOfAHang(), ElementsAre("hang", "refused switched-off"));
}

TEST_F(LogEvents, WithoutTheTraceLibraryThereIsNoReport) {
    watchedRecord();
    device.libraries.removeSymbol(kTraceLibraryPath, "swivex_dump_output_with_options_sync");
    EXPECT_THAT(eventsOfAHang(), ElementsAre("hang", "refused no-library"));
}

TEST_F(LogEvents, ASecondFenceHangWaitsForTheFirst) {
    watchedRecord();
    EXPECT_THAT(eventsOfAHang("Fence-hang"), ElementsAre("hang"));
    EXPECT_THAT(eventsOfAHang("Fence-hang"), ElementsAre("hang", "refused fence-pending"));
}

TEST_F(LogEvents, EveryStepThatFailsIsAReason) {
    watchedRecord();
    device.files.faults.failNext("createFile", {ENOSPC});
    EXPECT_THAT(eventsOfAHang(), ElementsAre("hang", "refused no-file"));
    device.json.faults.failNext("serialise", {EILSEQ});
    EXPECT_THAT(eventsOfAHang(), ElementsAre("hang", "refused no-reason"));
    device.json.faults.failNext("makeText", {EILSEQ});
    EXPECT_THAT(eventsOfAHang(), ElementsAre("hang", "refused no-reason"));
    traceLibrary.succeeds = false;
    EXPECT_THAT(eventsOfAHang(), ElementsAre("hang", "refused no-trace"));
    traceLibrary.succeeds = true;
    device.files.faults.failNext("moveFile", {EROFS});
    EXPECT_THAT(eventsOfAHang(), ElementsAre("hang", "refused not-moved"));
}

TEST_F(LogEvents, TheDailyResetIsOne) {
    device.log.clear();
    QXProcessInfo::resetDailyLogCredits();
    EXPECT_THAT(events(), ElementsAre("daily reset"));
}

TEST_F(LogEvents, OtherLinesAreNone) {
    device.log.clear();
    prefer("QuorvixReportPeriod", 60.0);
    refresh();
    EXPECT_FALSE(device.log.lines().empty());
    EXPECT_THAT(events(), IsEmpty());
}

}  // namespace
}  // namespace quorvix::test
