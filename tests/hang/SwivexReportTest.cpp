#include <cerrno>
#include <limits>

#include "tests/hang/HangWorld.h"

namespace quorvix::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kFile = "main-Mail-2026-01-15-120000.swivex";
constexpr const char* kAttempt =
    "info: Mail: Attempting to save swivex at "
    "/var/root/Library/Caches/quorvixd/tmp/main-Mail-2026-01-15-120000.swivex";
constexpr const char* kMoving =
    "info: Mail: Moving swivex to spool: "
    "/var/root/Library/Caches/quorvixd/spool/main-Mail-2026-01-15-120000.swivex\n";
constexpr const char* kInfo =
    R"({"Reason":"why","ServiceName":"main","ProcessPath":"/Applications/Mail.app/Mail","PID":412,"ThreadID":5,)"
    R"("StartTime":10,"EndTime":20})";

class SwivexReport : public HangWorld {
protected:
    SwivexReport() { startWithHangTracing(); }

    bool save(std::string_view service = "main", std::string_view reason = "why", std::uint64_t threadID = 5,
              std::uint64_t startTime = 10, std::uint64_t endTime = 20) {
        const auto process = QXProcessInfo::processForPid(kPid);
        return (process ? *process : watchedRecord())
            .saveSwivexForService(service, reason, threadID, startTime, endTime);
    }
    // The lines of a report that ends with this result.
    Lines linesOfSave(bool result, std::string_view service = "main") {
        watchedRecord();
        return linesOf([&] { EXPECT_EQ(save(service), result); });
    }
    void expectNoFileLeft() {
        EXPECT_THAT(device.files.list(kTmp), IsEmpty());
        EXPECT_THAT(device.files.openFiles(), IsEmpty());
        EXPECT_EQ(device.files.wrongCloses(), 0u);
    }
    // The file operations on the report, without its name.
    std::vector<std::string> fileCalls() {
        std::vector<std::string> calls;
        for (const std::string& call : device.files.calls()) calls.push_back(call.substr(0, call.find(' ')));
        return calls;
    }
};

TEST_F(SwivexReport, IsMadeInTmpAndMovedToTheSpool) {
    EXPECT_THAT(linesOfSave(true), ElementsAre(kAttempt, kMoving));
    EXPECT_THAT(device.files.list(kSpool), ElementsAre(kFile));
    EXPECT_EQ(device.files.read(inSpool(kFile)), "trace");
    EXPECT_EQ(device.files.mode(inSpool(kFile)), 0644u);
    EXPECT_EQ(device.files.protectionClass(inSpool(kFile)), 4);
    EXPECT_THAT(fileCalls(), ElementsAre("createFile", "close", "moveFile"));
    expectNoFileLeft();
}

TEST_F(SwivexReport, TheReasonTextHasSevenMembersInOrder) {
    save();
    EXPECT_EQ(traceLibrary.calls.at(0).reason, kInfo);
    EXPECT_EQ(traceLibrary.calls.at(0).minTimestamp, 10u);
    EXPECT_EQ(traceLibrary.calls.at(0).maxTimestamp, 20u);
}

TEST_F(SwivexReport, NumbersAreWrittenSigned) {
    save("main", "why", std::numeric_limits<std::uint64_t>::max(), 0x8000000000000000u, 0x7FFFFFFFFFFFFFFFu);
    EXPECT_THAT(traceLibrary.calls.at(0).reason,
                testing::EndsWith(R"("PID":412,"ThreadID":-1,"StartTime":-9223372036854775808,)"
                                  R"("EndTime":9223372036854775807})"));
    EXPECT_EQ(traceLibrary.calls.at(0).minTimestamp, 0x8000000000000000u);
}

TEST_F(SwivexReport, TextsAreEscapedInTheReasonText) {
    save("a\"b\\c", "line\nbreak\x01 \xc3\xa9");
    EXPECT_THAT(traceLibrary.calls.at(0).reason,
                testing::StartsWith("{\"Reason\":\"line\\nbreak\\u0001 \xc3\xa9\",\"ServiceName\":\"a\\\"b\\\\c\","));
}

TEST_F(SwivexReport, TheFileIsStampedWithLocalTime) {
    device.wallClock.setTimeZone(std::chrono::hours(-13));
    save();
    EXPECT_THAT(device.files.list(kSpool), ElementsAre("main-Mail-2026-01-14-230000.swivex"));
}

TEST_F(SwivexReport, AProcessWithoutANameIsUnknownInTheFileName) {
    watchedRecord(kPid, "/");
    save();
    EXPECT_THAT(device.files.list(kSpool), ElementsAre("main-[Unknown]-2026-01-15-120000.swivex"));
}

TEST_F(SwivexReport, AFileThatCannotBeCreatedIsNotTraced) {
    device.files.faults.failNext("createFile", {EACCES});
    EXPECT_THAT(linesOfSave(false),
                ElementsAre(kAttempt,
                            "default: Mail: Could not create file - won't take a swivex: "
                            "/var/root/Library/Caches/quorvixd/tmp/main-Mail-2026-01-15-120000.swivex Permission "
                            "denied"));
    EXPECT_THAT(traceLibrary.calls, IsEmpty());
    EXPECT_THAT(fileCalls(), ElementsAre("createFile"));
    expectNoFileLeft();
}

TEST_F(SwivexReport, ANameWithASlashLeadsNowhere) {
    const Lines written = linesOfSave(false, "../../evil");
    ASSERT_EQ(written.size(), 2u);
    EXPECT_EQ(written[1],
              "default: Mail: Could not create file - won't take a swivex: /var/root/Library/Caches/quorvixd/tmp/"
              "../../evil-Mail-2026-01-15-120000.swivex No such file or directory");
    EXPECT_THAT(traceLibrary.calls, IsEmpty());
}

// The process name, the stamp and what joins them take 30 of a name's 255 bytes.
TEST_F(SwivexReport, ANameMayBeAsLongAsAFileName) {
    EXPECT_EQ(linesOfSave(true, std::string(225, 'n')).size(), 2u);
    EXPECT_THAT(linesOfSave(false, std::string(226, 'n')).back(), testing::EndsWith(".swivex File name too long"));
}

TEST_F(SwivexReport, AFullDiskIsNamedByItsError) {
    device.files.faults.failNext("createFile", {ENOSPC});
    EXPECT_THAT(linesOfSave(false).back(), testing::EndsWith(".swivex No space left on device"));
}

TEST_F(SwivexReport, AReasonThatCannotBeSerialisedIsNotTraced) {
    device.json.faults.failNext("serialise", {EDOM});
    EXPECT_THAT(linesOfSave(false),
                ElementsAre(kAttempt, std::string("default: Mail: Unable to serialize Info Dict into JSON: ") + kInfo +
                                          " - Numerical argument out of domain\n"));
    EXPECT_THAT(traceLibrary.calls, IsEmpty());
    EXPECT_THAT(fileCalls(), ElementsAre("createFile", "unlinkFile", "close"));
    expectNoFileLeft();
}

TEST_F(SwivexReport, ANameThatIsNotUtf8CannotBeSerialised) {
    EXPECT_THAT(linesOfSave(false, "m\xff").back(),
                testing::EndsWith(" - Invalid or incomplete multibyte or wide character\n"));
    expectNoFileLeft();
}

TEST_F(SwivexReport, AReasonThatIsNotTextIsNotTraced) {
    device.json.faults.failNext("makeText", {EILSEQ});
    EXPECT_THAT(
        linesOfSave(false),
        ElementsAre(kAttempt, std::string("default: Mail: Unable to create UTF8 string from JSON: ") + kInfo + "\n"));
    EXPECT_THAT(traceLibrary.calls, IsEmpty());
    EXPECT_THAT(fileCalls(), ElementsAre("createFile", "unlinkFile", "close"));
    expectNoFileLeft();
}

TEST_F(SwivexReport, AFailedTraceIsClosedAndUnlinked) {
    traceLibrary.succeeds = false;
    EXPECT_THAT(linesOfSave(false), ElementsAre(kAttempt, "default: Mail: Unable to save swivex data to file.\n"));
    EXPECT_THAT(fileCalls(), ElementsAre("createFile", "close", "unlinkFile"));
    EXPECT_THAT(device.files.list(kSpool), IsEmpty());
    expectNoFileLeft();
}

TEST_F(SwivexReport, WithoutADumpFunctionTheFileGoesAgain) {
    device.libraries.removeSymbol(kTraceLibraryPath, "swivex_dump_output_with_options_sync");
    EXPECT_THAT(linesOfSave(false), ElementsAre(kAttempt, "default: Swivex dump symbol is missing!",
                                                "default: Mail: Unable to save swivex data to file.\n"));
    expectNoFileLeft();
}

TEST_F(SwivexReport, AFailedMoveStillCountsAsAReport) {
    device.files.faults.failNext("moveFile", {EROFS});
    EXPECT_THAT(
        linesOfSave(true),
        ElementsAre(kAttempt, kMoving, "default: Mail: Unable to move swivex to final path: Read-only file system"));
    EXPECT_THAT(fileCalls(), ElementsAre("createFile", "close", "moveFile", "unlinkFile"));
    EXPECT_THAT(device.files.list(kSpool), IsEmpty());
    expectNoFileLeft();
}

TEST_F(SwivexReport, AFailedMoveIsPaidForFromBothBudgets) {
    QXProcessInfo& mail = watchedRecord();
    device.files.faults.failNext("moveFile", {EROFS});
    const Lines written = linesOf([&] { recordHang(mail, "main"); });
    ASSERT_EQ(written.size(), 6u);
    EXPECT_EQ(written[4], "info: Mail Log credits: 4 -> 3");
    EXPECT_EQ(written[5], "info: Daily Log credits: 25 -> 24");
}

TEST_F(SwivexReport, ASecondReportOfTheSameSecondDoesNotReplaceTheFirst) {
    EXPECT_TRUE(save());
    traceLibrary.writes = "second";
    EXPECT_THAT(linesOfSave(true),
                ElementsAre(kAttempt, kMoving, "default: Mail: Unable to move swivex to final path: File exists"));
    EXPECT_EQ(device.files.read(inSpool(kFile)), "trace");
    expectNoFileLeft();
}

TEST_F(SwivexReport, AReportOfTheNextSecondHasANameOfItsOwn) {
    save();
    advanceMs(1000);
    save();
    EXPECT_THAT(device.files.list(kSpool), ElementsAre(kFile, "main-Mail-2026-01-15-120001.swivex"));
}

TEST_F(SwivexReport, AMissingTmpFolderIsAFileThatCannotBeCreated) {
    device.files.faults.failNext("createFile", {ENOENT});
    EXPECT_THAT(linesOfSave(false).back(), testing::EndsWith(".swivex No such file or directory"));
}

TEST_F(SwivexReport, AFileThatCannotBeUnlinkedStaysAndIsClosed) {
    traceLibrary.succeeds = false;
    device.files.faults.failNext("unlinkFile", {EIO});
    EXPECT_EQ(linesOfSave(false).size(), 2u);
    EXPECT_THAT(device.files.list(kTmp), ElementsAre(kFile));
    EXPECT_THAT(device.files.openFiles(), IsEmpty());
}

// A crash may have left one: it is written over from its start and not cut.
TEST_F(SwivexReport, AnOldTemporaryFileIsUsedAgain) {
    device.files.addFile(inTmp(kFile), "old and long");
    EXPECT_TRUE(save());
    EXPECT_EQ(device.files.read(inSpool(kFile)), "tracend long");
}

}  // namespace
}  // namespace quorvix::test
