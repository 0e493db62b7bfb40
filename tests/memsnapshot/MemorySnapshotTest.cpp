#include "tests/memsnapshot/MemoryWorld.h"

namespace quorvix::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::string_view kName = "memory-snapshot-2026-01-15-120000.ips";

// A snapshot as the timer takes it, and what it leaves in the folders and in the log.
class MemorySnapshot : public MemoryWorld {
protected:
    MemorySnapshot() {
        time = serviceState().reportDateFormatter->format(device.wallClock.now());
        name = "memory-snapshot-" + time + ".ips";
        device.processMemory.processes = {{.pid = 1, .path = "/sbin/init", .footprintBytes = 4096}};
    }

    std::string cachePath() { return "/var/root/Library/Caches/quorvixd//" + name; }
    std::string reportPath() { return "/Library/Logs/Faultbox//" + name; }
    std::vector<std::string> reports() { return device.files.list(kFaultbox); }
    // What a snapshot may have left in the cache folder; its own subfolders stand there always.
    std::vector<std::string> cached() {
        std::vector<std::string> names;
        for (const std::string& entry : device.files.list(kCache)) {
            if (entry != "tmp" && entry != "spool") names.push_back(entry);
        }
        return names;
    }
    using Line = sim::SimLog::Line;
    std::vector<Line> lines() { return device.log.lines(); }
    Line platformLine(LogLevel level, std::string text) {
        return {"com.norvane.quorvix", "platform", level, std::move(text)};
    }
    Line moveFailed(ErrorCode error) {
        return platformLine(LogLevel::standard,
                            "Could not move memory snapshot to " + reportPath() + ": " + error.text());
    }
    void expectNothingLeft() {
        EXPECT_THAT(reports(), IsEmpty());
        EXPECT_THAT(cached(), IsEmpty());
        EXPECT_THAT(device.files.openFiles(), IsEmpty());
        EXPECT_EQ(device.files.wrongCloses(), 0u);
    }
    // The fault is over: the next snapshot is there.
    void expectTheNextSucceeds() {
        device.files.faults = {};
        device.files.spaceLeft = std::nullopt;
        device.files.addDirectory(kFaultbox);
        takeMemorySnapshot();
        EXPECT_THAT(reports(), ElementsAre(name));
        EXPECT_THAT(cached(), IsEmpty());
    }

    std::string time;
    std::string name;
};

TEST_F(MemorySnapshot, IsNamedByTheTimeAndMovedIntoTheReportFolder) {
    takeMemorySnapshot();
    EXPECT_THAT(reports(), ElementsAre(name));
    EXPECT_THAT(cached(), IsEmpty());
    EXPECT_EQ(device.files.read(reportPath()), memoryReportText(time));
    EXPECT_EQ(device.files.mode(reportPath()), 0644u);
    EXPECT_EQ(device.files.protectionClass(reportPath()), 4);
    EXPECT_THAT(device.files.openFiles(), IsEmpty());
}

TEST_F(MemorySnapshot, TheNameHoldsTheTimeToTheSecond) { EXPECT_EQ(name, kName); }

TEST_F(MemorySnapshot, IsWrittenAtOnceAndMovedWhenComplete) {
    const std::size_t before = device.files.calls().size();
    takeMemorySnapshot();
    const std::vector<std::string> calls(device.files.calls().begin() + static_cast<std::ptrdiff_t>(before),
                                         device.files.calls().end());
    EXPECT_THAT(calls,
                ElementsAre("createNewFile " + name, "write " + name, "closeChecked " + name, "replaceFile " + name));
}

TEST_F(MemorySnapshot, TellsWhatItWroteInOneQuietLine) {
    takeMemorySnapshot();
    ASSERT_EQ(device.log.events().size(), 1u);
    EXPECT_EQ(device.log.events().front().first, LogEvent{LogEventKind::snapshotWritten});
    const auto size = device.files.read(reportPath())->size();
    EXPECT_THAT(lines(), ElementsAre(platformLine(LogLevel::info, "Memory snapshot written: " + reportPath() + " (" +
                                                                      std::to_string(size) + " bytes)")));
}

TEST_F(MemorySnapshot, NothingOfAnOlderFileOfTheNameIsLeft) {
    device.files.addFile(cachePath(), std::string(100'000, 'x'));
    device.files.addFile(reportPath(), std::string(100'000, 'y'));
    takeMemorySnapshot();
    EXPECT_EQ(device.files.read(reportPath()), memoryReportText(time));
    EXPECT_THAT(cached(), IsEmpty());
}

TEST_F(MemorySnapshot, IsNotTakenWhenItsFileCannotBeCreated) {
    device.files.faults.failNext("createNewFile", ErrorCode{EACCES});
    takeMemorySnapshot();
    EXPECT_THAT(lines(), ElementsAre(Line{"com.norvane.quorvix", "", LogLevel::standard,
                                          "Could not create file - won't take a memory snapshot: " + cachePath() +
                                              " Permission denied"}));
    EXPECT_EQ(device.kernelMemory.informationCalls(), 0u) << "nothing was asked";
    EXPECT_EQ(device.host.counts().size(), 0u);
    expectNothingLeft();
    expectTheNextSucceeds();
}

TEST_F(MemorySnapshot, AFullDiskLeavesNoHalfReport) {
    for (const std::size_t space : {std::size_t{0}, std::size_t{1}, memoryReportText(time).size() - 1}) {
        device.log.clear();
        device.files.spaceLeft = space;
        takeMemorySnapshot();
        EXPECT_THAT(lines(),
                    ElementsAre(platformLine(LogLevel::standard, "Could not write memory snapshot " + cachePath() +
                                                                     ": No space left on device")));
        expectNothingLeft();
    }
    device.files.spaceLeft = memoryReportText(time).size();
    takeMemorySnapshot();
    EXPECT_THAT(reports(), ElementsAre(name)) << "it just fits";
}

TEST_F(MemorySnapshot, AFailedWriteLeavesNothing) {
    device.files.faults.failNext("write", ErrorCode{EIO});
    takeMemorySnapshot();
    EXPECT_THAT(lines(), ElementsAre(platformLine(LogLevel::standard, "Could not write memory snapshot " + cachePath() +
                                                                          ": Input/output error")));
    expectNothingLeft();
    expectTheNextSucceeds();
}

TEST_F(MemorySnapshot, AFailedCloseIsAFailedWrite) {
    device.files.faults.failNext("closeChecked", ErrorCode{EDQUOT});
    takeMemorySnapshot();
    EXPECT_THAT(lines(), ElementsAre(platformLine(LogLevel::standard, "Could not write memory snapshot " + cachePath() +
                                                                          ": Disk quota exceeded")));
    expectNothingLeft();
    expectTheNextSucceeds();
}

TEST_F(MemorySnapshot, AFailedMoveLeavesNothing) {
    device.files.faults.failNext("replaceFile", ErrorCode{EROFS});
    takeMemorySnapshot();
    EXPECT_THAT(lines(), ElementsAre(moveFailed(ErrorCode{EROFS})));
    expectNothingLeft();
    expectTheNextSucceeds();
}

TEST_F(MemorySnapshot, AMissingReportFolderLeavesNothing) {
    device.files.addFile("/Library/Logs/Faultbox", "a file stands there");
    takeMemorySnapshot();
    EXPECT_THAT(lines(), ElementsAre(moveFailed(ErrorCode{ENOTDIR})));
    expectNothingLeft();
    device.log.clear();
    ASSERT_TRUE(device.files.unlink("/Library/Logs/Faultbox"));
    takeMemorySnapshot();
    EXPECT_THAT(lines(), ElementsAre(moveFailed(ErrorCode{ENOENT})));
    expectNothingLeft();
    expectTheNextSucceeds();
}

TEST_F(MemorySnapshot, AMissingCacheFolderTakesNoSnapshot) {
    device.files.addFile(kCache, "a file stands there");
    takeMemorySnapshot();
    EXPECT_THAT(texts(), ElementsAre("Could not create file - won't take a memory snapshot: " + cachePath() +
                                     " Not a directory"));
    EXPECT_THAT(reports(), IsEmpty());
}

TEST_F(MemorySnapshot, ALeftoverThatCannotBeRemovedIsNoReasonToStop) {
    device.files.faults.failNext("write", ErrorCode{EIO});
    device.files.faults.failNext("unlinkFile", ErrorCode{EIO});
    takeMemorySnapshot();
    EXPECT_THAT(reports(), IsEmpty());
    expectTheNextSucceeds();
}

// The report folder on a file system of its own.

class MemorySnapshotAcrossFileSystems : public MemorySnapshot {
protected:
    MemorySnapshotAcrossFileSystems() { device.files.addMountPoint(kFaultbox); }
    std::vector<std::string> callsOfOne() {
        const std::size_t before = device.files.calls().size();
        takeMemorySnapshot();
        return {device.files.calls().begin() + static_cast<std::ptrdiff_t>(before), device.files.calls().end()};
    }
};

TEST_F(MemorySnapshotAcrossFileSystems, ACompleteCopyIsRenamedInTheTargetFolder) {
    EXPECT_THAT(callsOfOne(), ElementsAre("createNewFile " + name, "write " + name, "closeChecked " + name,
                                          "replaceFile " + name, "createNewFile ." + name, "write ." + name,
                                          "closeChecked ." + name, "replaceFile ." + name, "unlinkFile " + name));
    EXPECT_THAT(reports(), ElementsAre(name));
    EXPECT_THAT(cached(), IsEmpty());
    EXPECT_EQ(device.files.read(reportPath()), memoryReportText(time));
    EXPECT_EQ(device.files.mode(reportPath()), 0644u);
    EXPECT_THAT(device.files.openFiles(), IsEmpty());
}

TEST_F(MemorySnapshotAcrossFileSystems, AnyStepOfTheCopyThatFailsLeavesNothing) {
    for (const std::string step : {"createNewFile", "write", "closeChecked", "replaceFile"}) {
        device.log.clear();
        device.files.faults.failNth(step, 2, ErrorCode{EIO});
        takeMemorySnapshot();
        EXPECT_THAT(lines(), ElementsAre(moveFailed(ErrorCode{EIO}))) << step;
        expectNothingLeft();
    }
    expectTheNextSucceeds();
}

TEST_F(MemorySnapshotAcrossFileSystems, ADiskThatFillsDuringTheCopyLeavesNothing) {
    const std::size_t size = memoryReportText(time).size();
    device.files.spaceLeft = size + size / 2;
    takeMemorySnapshot();
    EXPECT_THAT(lines(), ElementsAre(moveFailed(ErrorCode{ENOSPC})));
    expectNothingLeft();
    expectTheNextSucceeds();
}

// As the timer takes them.

TEST_F(MemorySnapshot, OneIsWrittenEveryIntervalUnderItsOwnName) {
    advanceMs(3'599'999);
    EXPECT_THAT(reports(), IsEmpty());
    advanceMs(1);
    EXPECT_EQ(reports().size(), 1u);
    advanceMs(3'600'000);
    EXPECT_EQ(reports().size(), 2u);
}

TEST_F(MemorySnapshot, TheWallClockNamesThemAndNeverSaysWhenTheyAreDue) {
    const auto step = [this](std::chrono::hours by) { device.scheduler.setWallClock(device.scheduler.wallNow() + by); };
    step(-std::chrono::hours(1));
    advanceMs(3'599'999);
    EXPECT_THAT(reports(), IsEmpty());
    advanceMs(1);
    EXPECT_THAT(reports(), ElementsAre(kName)) << "an hour on from an hour back";
    step(-std::chrono::hours(1));
    advanceMs(3'600'000);
    EXPECT_THAT(reports(), ElementsAre(kName)) << "the second one has replaced the first";
    step(std::chrono::hours(24 * 365));
    EXPECT_EQ(reports().size(), 1u);
}

TEST_F(MemorySnapshot, SwitchedOffAndOnTheIntervalBeginsAnew) {
    prefer("QuorvixEnabled", true);  // without anything on the daemon would end
    advanceMs(3'000'000);
    for (int i = 0; i < 100; ++i) {
        prefer("QuorvixEnableMemoryLogging", false);
        refresh();
        prefer("QuorvixEnableMemoryLogging", true);
        refresh();
    }
    advanceMs(3'599'999);
    EXPECT_THAT(reports(), IsEmpty());
    advanceMs(1);
    EXPECT_EQ(reports().size(), 1u);
}

TEST_F(MemorySnapshot, TheDaemonGoesOnAfterAFailure) {
    device.files.faults.failNext("createNewFile", ErrorCode{ENOSPC});
    advanceMs(3'600'000);
    EXPECT_THAT(reports(), IsEmpty());
    advanceMs(3'600'000);
    EXPECT_EQ(reports().size(), 1u);
}

}  // namespace
}  // namespace quorvix::test
