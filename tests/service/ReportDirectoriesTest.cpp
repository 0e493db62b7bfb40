#include "tests/support/DaemonWorld.h"

namespace quorvix::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::string_view kRoot = "/var/root/Library/Caches/quorvixd";

class ReportDirectories : public DaemonWorld {};

TEST_F(ReportDirectories, AreMadeInOrderForTheirOwnerToWrite) {
    createReportDirectories();
    EXPECT_THAT(texts(), ElementsAre("Create log directory: /var/root/Library/Caches/quorvixd",
                                     "Create log directory: /var/root/Library/Caches/quorvixd/tmp",
                                     "Create log directory: /var/root/Library/Caches/quorvixd/spool"));
    EXPECT_EQ(levelOf(texts()[0]), LogLevel::info);
    for (const std::string_view path : {kRoot, kTmp, kSpool}) EXPECT_EQ(device.files.mode(path), 0755u) << path;
}

TEST_F(ReportDirectories, SayNothingWhereTheyExist) {
    createReportDirectories();
    device.log.clear();
    createReportDirectories();
    EXPECT_THAT(device.log.lines(), IsEmpty());
}

TEST_F(ReportDirectories, OnlyTheMissingOneIsMade) {
    device.files.addDirectory(kTmp);
    createReportDirectories();
    EXPECT_THAT(texts(), ElementsAre("Create log directory: /var/root/Library/Caches/quorvixd/spool"));
}

TEST_F(ReportDirectories, ReplaceAFileInTheirPlace) {
    device.files.addDirectory(kSpool);
    device.files.addFile(kTmp, "in the way");
    createReportDirectories();
    EXPECT_THAT(texts(), ElementsAre("Create log directory: /var/root/Library/Caches/quorvixd/tmp"));
    EXPECT_TRUE(device.files.status(kTmp)->isDirectory);
}

TEST_F(ReportDirectories, AFileThatCannotBeRemovedStopsNothing) {
    device.files.addFile(kTmp, "in the way");
    device.files.faults.failAlways("unlink", ErrorCode{EPERM});
    createReportDirectories();
    EXPECT_THAT(texts(),
                ElementsAre("Unable to remove previous non-directory at /var/root/Library/Caches/quorvixd/tmp",
                            "Create log directory: /var/root/Library/Caches/quorvixd/tmp",
                            "Cannot create spool directory - /var/root/Library/Caches/quorvixd/tmp failed with File "
                            "exists - continuing anyway.",
                            "Create log directory: /var/root/Library/Caches/quorvixd/spool"));
    EXPECT_EQ(levelOf(texts()[0]), LogLevel::standard);
    EXPECT_EQ(levelOf(texts()[1]), LogLevel::info);
    EXPECT_EQ(levelOf(texts()[2]), LogLevel::standard);
    EXPECT_TRUE(device.files.status(kSpool)->isDirectory);
}

TEST_F(ReportDirectories, EachFailureNamesItsPathAndError) {
    device.files.faults.failAlways("makeDirectory", ErrorCode{EROFS});
    createReportDirectories();
    ASSERT_EQ(texts().size(), 6u);
    EXPECT_EQ(texts()[5],
              "Cannot create spool directory - /var/root/Library/Caches/quorvixd/spool failed with Read-only file "
              "system - continuing anyway.");
    EXPECT_EQ(countText("Cannot create spool directory - /var/root/Library/Caches/quorvixd failed with Read-only file "
                        "system - continuing anyway."),
              1u);
}

TEST_F(ReportDirectories, AreTriedWhereTheirStateCannotBeRead) {
    createReportDirectories();
    device.log.clear();
    device.files.faults.failNth("status", 2, ErrorCode{EACCES});
    createReportDirectories();
    EXPECT_THAT(texts(), ElementsAre("Create log directory: /var/root/Library/Caches/quorvixd/tmp",
                                     "Cannot create spool directory - /var/root/Library/Caches/quorvixd/tmp failed "
                                     "with File exists - continuing anyway."));
}

TEST_F(ReportDirectories, FailuresDoNotStopTheStart) {
    device.files.faults.failAlways("makeDirectory", ErrorCode{ENOSPC});
    prefer("QuorvixEnabled", true);
    start();
    EXPECT_TRUE(settings().hangTracingEnabled);
}

}  // namespace
}  // namespace quorvix::test
