#include "tests/support/DaemonWorld.h"

namespace quorvix::test {
namespace {

class HangEndToEnd : public DaemonWorld {};

TEST_F(HangEndToEnd, WritesAReportForAHangOfAWatchedApp) {
    startWithHangTracing();
    App app = watch(412);
    app.begin(0, now());
    advanceMs(10'000);

    EXPECT_EQ(countText("Mail: Hang detected 10.00s (main)"), 1u);
    const auto reports = device.files.list(kSpool);
    ASSERT_EQ(reports, std::vector<std::string>{"main-Mail-2026-01-15-120010.swivex"});
    EXPECT_EQ(device.files.read(std::string(kSpool) + "/" + reports[0]), "trace");
    ASSERT_EQ(traceLibrary.calls.size(), 1u);
    EXPECT_EQ(
        traceLibrary.calls[0].reason,
        R"({"Reason":"main-Mail: timeout 10000ms","ServiceName":"main","ProcessPath":"/Applications/Mail.app/Mail",)"
        R"("PID":412,"ThreadID":77,"StartTime":1000000,"EndTime":1010000})");
    EXPECT_TRUE(device.files.openFiles().empty());
}

}  // namespace
}  // namespace quorvix::test
