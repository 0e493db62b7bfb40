#include "hang/HangDisplay.h"

#include "tests/hang/HangWorld.h"

namespace quorvix::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Messages = std::vector<sim::DebugMessage>;

constexpr std::uint32_t kPort = 9;
constexpr std::uint64_t kMaximumPendingClears = 1024;

class HangDisplay : public HangWorld {
protected:
    void startDisplay(bool internalBuild = true, bool hudEnabled = true, std::uint32_t port = kPort) {
        device.capabilities.setAnswer("InternalBuild", internalBuild);
        prefer("QuorvixEnableHUD", hudEnabled);
        device.renderServer.setPort(port);
        startWithHangTracing();
    }
    const Messages& shown() const { return device.renderServer.messages(); }
    // Hangs that ask for no report.
    void hang(QXProcessInfo& process, std::string_view name = "main", int times = 1) {
        for (int i = 0; i < times; ++i) recordHang(process, name, 6000, false);
    }
};

TEST_F(HangDisplay, ShowsAHangAndClearsItAfterTwoSeconds) {
    startDisplay();
    QXProcessInfo& mail = watchedRecord();
    EXPECT_THAT(linesOf([&] { hang(mail); }), ElementsAre("info: Mail: Hang detected 6.00s (main)",
                                                          "info: Setting message to: \"HANG:main Mail 6.00s\""));
    EXPECT_EQ(shown(), (Messages{{kPort, "HANG:main Mail 6.00s"}}));
    advanceMs(1999);
    EXPECT_EQ(shown().size(), 1u);
    EXPECT_THAT(linesOf([&] { advanceMs(1); }), IsEmpty());
    EXPECT_EQ(shown(), (Messages{{kPort, "HANG:main Mail 6.00s"}, {kPort, std::nullopt}}));
    EXPECT_EQ(device.renderServer.portReferences(), 0);
}

TEST_F(HangDisplay, ShowsTheFirstTenBytesOfTheProcessName) {
    startDisplay();
    EXPECT_EQ(linesOf([&] { hang(watchedRecord(kPid, "/bin/FourteenLetter")); }).front(),
              "info: FourteenLetter: Hang detected 6.00s (main)");
    hang(watchedRecord(413, "/bin/TenLetters"));
    EXPECT_EQ(shown(), (Messages{{kPort, "HANG:main FourteenLe 6.00s"}, {kPort, "HANG:main TenLetters 6.00s"}}));
}

TEST_F(HangDisplay, CutsAMessageTo99Bytes) {
    startDisplay();
    QXProcessInfo& mail = watchedRecord();
    // "HANG:" and " Mail 6.00s" take 16 bytes.
    for (const std::size_t length : {83u, 84u, 4096u}) hang(mail, std::string(length, 'n'));
    ASSERT_EQ(shown().size(), 3u);
    EXPECT_EQ(shown()[0].text, "HANG:" + std::string(83, 'n') + " Mail 6.00s");
    EXPECT_EQ(shown()[1].text, "HANG:" + std::string(84, 'n') + " Mail 6.00");
    EXPECT_EQ(shown()[2].text, "HANG:" + std::string(94, 'n'));
}

TEST_F(HangDisplay, LogsTheMessageAsItWasCut) {
    startDisplay();
    QXProcessInfo& mail = watchedRecord();
    EXPECT_EQ(linesOf([&] { hang(mail, std::string(200, 'n')); }).back(),
              "info: Setting message to: \"HANG:" + std::string(94, 'n') + "\"");
    EXPECT_EQ(hangState().hudMessageBuffer[98], 'n');
    EXPECT_EQ(hangState().hudMessageBuffer[99], '\0');
}

TEST_F(HangDisplay, KeepsTheLastMessageInTheBuffer) {
    startDisplay();
    QXProcessInfo& mail = watchedRecord();
    hang(mail, std::string(200, 'n'));
    hang(mail, "b");
    advanceMs(2000);
    EXPECT_STREQ(hangState().hudMessageBuffer.data(), "HANG:b Mail 6.00s");
}

TEST_F(HangDisplay, ShowsNothingOnOtherBuilds) {
    startDisplay(false, true);
    QXProcessInfo& mail = watchedRecord();
    EXPECT_EQ(linesOf([&] { hang(mail); }).size(), 1u);
    advanceMs(2000);
    EXPECT_EQ(device.renderServer.portQueries(), 0u);
}

TEST_F(HangDisplay, ShowsNothingWhileSwitchedOff) {
    startDisplay(true, false);
    QXProcessInfo& mail = watchedRecord();
    EXPECT_EQ(linesOf([&] { hang(mail); }).size(), 1u);
    advanceMs(2000);
    EXPECT_EQ(device.renderServer.portQueries(), 0u);
}

TEST_F(HangDisplay, SaysWhenThereIsNoRenderServerForMessageAndClear) {
    startDisplay(true, true, 0);
    QXProcessInfo& mail = watchedRecord();
    EXPECT_THAT(linesOf([&] { hang(mail); }),
                ElementsAre("info: Mail: Hang detected 6.00s (main)", "default: Unable to get render server port!"));
    EXPECT_THAT(linesOf([&] { advanceMs(2000); }), ElementsAre("default: Unable to get render server port!"));
    EXPECT_THAT(shown(), IsEmpty());
    EXPECT_EQ(device.renderServer.portReferences(), 0);
}

TEST_F(HangDisplay, LeavesAMessageStandingThatWasSwitchedOffMeanwhile) {
    startDisplay();
    hang(watchedRecord());
    settings().hudEnabled = false;
    advanceMs(2000);
    EXPECT_EQ(shown().size(), 1u);
}

TEST_F(HangDisplay, AnEarlierHangsClearMayTakeALaterMessage) {
    startDisplay();
    QXProcessInfo& mail = watchedRecord();
    hang(mail, "a");
    advanceMs(1500);
    hang(mail, "b");
    advanceMs(500);
    EXPECT_EQ(shown(), (Messages{{kPort, "HANG:a Mail 6.00s"}, {kPort, "HANG:b Mail 6.00s"}, {kPort, std::nullopt}}));
    advanceMs(1500);
    EXPECT_EQ(shown().size(), 4u);
}

TEST_F(HangDisplay, EveryHangIsShownReportedOrNot) {
    startDisplay();
    QXProcessInfo& mail = watchedRecord();
    recordHang(mail, "main", 6000, true);
    recordHang(mail, "Fence-hang", 6000, true);
    EXPECT_EQ(shown(), (Messages{{kPort, "HANG:main Mail 6.00s"}, {kPort, "HANG:Fence-hang Mail 6.00s"}}));
}

TEST_F(HangDisplay, ClearsUpToTheBoundArePendingAndNoneIsDropped) {
    startDisplay();
    hang(watchedRecord(), "main", kMaximumPendingClears);
    EXPECT_EQ(hangState().displayClearsPending, kMaximumPendingClears);
    advanceMs(2000);
    EXPECT_EQ(shown().size(), 2 * kMaximumPendingClears);
    EXPECT_EQ(hangState().displayClearsDropped, 0u);
    advanceMs(2000);
    EXPECT_EQ(shown().size(), 2 * kMaximumPendingClears);
}

TEST_F(HangDisplay, ClearsPastTheBoundAreDroppedCountedAndMadeUpForByOne) {
    startDisplay();
    QXProcessInfo& mail = watchedRecord();
    hang(mail, "main", kMaximumPendingClears);
    advanceMs(1999);
    hang(mail, "late", 3);
    EXPECT_EQ(hangState().displayClearsPending, kMaximumPendingClears);
    EXPECT_EQ(hangState().displayClearsDropped, 3u);
    advanceMs(1);
    const std::size_t cleared = shown().size();
    advanceMs(1999);
    EXPECT_EQ(shown().size(), cleared);
    advanceMs(1);
    ASSERT_EQ(shown().size(), cleared + 1);
    EXPECT_EQ(shown().back().text, std::nullopt);
    EXPECT_EQ(hangState().displayClearsPending, 0u);
}

// The clears are scheduled on every device, shown or not.
TEST_F(HangDisplay, TheBoundHoldsWhereNothingIsShown) {
    startDisplay(false, false);
    const std::size_t waiting = device.scheduler.waitingCount();
    hang(watchedRecord(), "main", 5000);
    EXPECT_EQ(device.scheduler.waitingCount(), waiting + kMaximumPendingClears);
    EXPECT_EQ(hangState().displayClearsDropped, 5000 - kMaximumPendingClears);
}

}  // namespace
}  // namespace quorvix::test
