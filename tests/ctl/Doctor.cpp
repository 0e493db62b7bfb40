#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "ctl/Diagnosis.h"
#include "platform/linux/PowerLogDatabase.h"
#include "platform/linux/Sqlite.h"
#include "tests/ctl/Tool.h"
#include "tests/support/FailingRead.h"
#include "tests/support/TemporaryFolder.h"

namespace quorvix::ctl {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;
namespace fs = std::filesystem;

// A whole file system of its own that quorvixd could be installed in. Needs root: the folders must be root's.
class Doctor : public testing::Test {
protected:
    Doctor() {
        tool.services.root = folder.path();
        tool.services.profilePath = at("/profile.plist");
        makeFolder("/run/vex", 0755);
        makeFolder("/run/vex/notify", 0755);
        makeFolder("/var/lib/quorvix", 0700);
        makeFolder("/var/root/Library/Caches", 0700);
        makeFolder("/var/root/Library/Caches/quorvixd", 0755);
        makeFolder("/var/root/Library/Caches/quorvixd/tmp", 0755);
        makeFolder("/var/root/Library/Caches/quorvixd/spool", 0755);
        makeFolder("/Library/Logs/Faultbox", 0700);
    }
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "the folders must be root's";
    }
    std::string at(const std::string& path) const { return folder.path() + path; }
    // A database of more than one page.
    static void makeStore(const std::string& path) {
        linuxos::makeDatabaseFile(path);
        linuxos::SqliteDatabase(path).execute(
            "CREATE TABLE Rows(Content); INSERT INTO Rows VALUES (zeroblob(3000)), (zeroblob(3000)), (zeroblob(3000))");
    }
    void makeFolder(const std::string& path, mode_t mode) const {
        fs::create_directories(at(path));
        chmod(at(path).c_str(), mode);
    }
    // The texts of what is no good news.
    static std::vector<std::string> complaints(const Findings& findings, Finding::Kind kind = Finding::Kind::problem) {
        std::vector<std::string> texts;
        for (const Finding& finding : findings) {
            if (finding.kind != kind) continue;
            EXPECT_FALSE(finding.mend.empty()) << finding.text;
            texts.push_back(finding.text);
        }
        return texts;
    }
    void installTraceLibrary() const {
        fs::create_directories(at("/usr/lib"));
        fs::copy_file(QUORVIX_STANDIN_FOLDER "/standin_swivex/libswivex.dylib", at("/usr/lib/libswivex.dylib"));
        chmod(at("/usr/lib/libswivex.dylib").c_str(), 0644);
    }
    tests::TemporaryFolder folder;
    Tool tool;
};

TEST_F(Doctor, FoldersAsTheyShouldBeAreGood) { EXPECT_THAT(complaints(examineFolders(tool.services)), IsEmpty()); }

TEST_F(Doctor, AMissingFolderIsAProblem) {
    fs::remove(at("/run/vex/notify"));
    EXPECT_THAT(complaints(examineFolders(tool.services)), testing::ElementsAre("/run/vex/notify is missing"));
}

TEST_F(Doctor, AFolderThatOthersCanReadIsAProblem) {
    chmod(at("/Library/Logs/Faultbox").c_str(), 0750);
    EXPECT_THAT(complaints(examineFolders(tool.services)), testing::ElementsAre(HasSubstr("has mode 0750")));
    EXPECT_THAT(examineFolders(tool.services)[0].mend, "chmod 0700 /Library/Logs/Faultbox");
}

TEST_F(Doctor, AFolderOfAnotherUserIsAProblem) {
    ASSERT_EQ(chown(at("/run/vex").c_str(), 65534, 65534), 0);
    EXPECT_THAT(complaints(examineFolders(tool.services)), testing::ElementsAre(HasSubstr("belongs to user 65534")));
}

TEST_F(Doctor, AStoreThatOthersCanReadIsAProblem) {
    tests::writeWholeFile(at("/var/lib/quorvix/tallisk.db"), "");
    chmod(at("/var/lib/quorvix/tallisk.db").c_str(), 0640);
    EXPECT_THAT(complaints(examineStores(tool.services)), testing::ElementsAre(HasSubstr("mode 0640")));
}

TEST_F(Doctor, ADamagedStoreIsAProblem) {
    tests::writeWholeFile(at("/var/lib/quorvix/wattrel.db"), std::string(5000, 'x'));
    chmod(at("/var/lib/quorvix/wattrel.db").c_str(), 0600);
    EXPECT_THAT(complaints(examineStores(tool.services)), testing::ElementsAre(HasSubstr("is damaged")));
}

TEST_F(Doctor, AStoreOfWhichPartIsLostIsAProblem) {
    makeStore(at("/var/lib/quorvix/tallisk.db"));
    std::filesystem::resize_file(at("/var/lib/quorvix/tallisk.db"), 4096);
    EXPECT_THAT(complaints(examineStores(tool.services)), testing::ElementsAre(HasSubstr("tallisk.db is damaged: ")));
}

TEST_F(Doctor, AStoreIsNotDamagedBecauseOneReadFailed) {
    makeStore(at("/var/lib/quorvix/tallisk.db"));
    int reads = 0;
    for (bool struck = true; struck; ++reads) {
        const tests::FailingRead failing(reads + 1);
        EXPECT_THAT(complaints(examineStores(tool.services)), testing::Not(testing::Contains(HasSubstr("damaged"))))
            << reads;
        struck = tests::FailingRead::struck();
    }
    EXPECT_GT(reads, 2);
}

TEST_F(Doctor, AStoreThatSomebodyHoldsCannotBeReadAndIsNotDamaged) {
    makeStore(at("/var/lib/quorvix/tallisk.db"));
    linuxos::SqliteDatabase holder(at("/var/lib/quorvix/tallisk.db"));
    holder.execute("BEGIN EXCLUSIVE");
    EXPECT_THAT(complaints(examineStores(tool.services)),
                testing::ElementsAre(HasSubstr("tallisk.db cannot be read: database is locked")));
}

TEST_F(Doctor, AStoreThatWasMovedAsideIsWorthKnowing) {
    tests::writeWholeFile(at("/var/lib/quorvix/tallisk.db.damaged"), "");
    EXPECT_THAT(complaints(examineStores(tool.services), Finding::Kind::notice),
                testing::ElementsAre(HasSubstr("was moved aside once")));
}

TEST_F(Doctor, PowerLogsThatWereMovedAsideAreAProblemOnceThereIsNoPlaceForTheNext) {
    const int most = linuxos::PowerLogDatabase::kMaximumMovedAside;
    for (int number = 1; number <= most; ++number) {
        EXPECT_THAT(complaints(examineStores(tool.services)), IsEmpty()) << number;
        const std::string aside = at("/var/lib/quorvix/wattrel.db.newer-" + std::to_string(number));
        tests::writeWholeFile(aside, "");
        tests::writeWholeFile(aside + "-wal", "");
        EXPECT_THAT(complaints(examineStores(tool.services), Finding::Kind::notice), testing::SizeIs(number));
    }
    EXPECT_THAT(complaints(examineStores(tool.services)), testing::ElementsAre(HasSubstr("8 files ")));
}

TEST_F(Doctor, AMissingFolderIsToBeMadeClosedToOthers) {
    std::filesystem::remove(at("/var/lib/quorvix"));
    const Findings found = examineFolders(tool.services);
    ASSERT_EQ(found.size(), 1u);
    EXPECT_THAT(found[0].mend, HasSubstr("install -d -m 0700 /var/lib/quorvix"));
}

TEST_F(Doctor, ADamagedProfileIsAProblem) {
    tests::writeWholeFile(tool.services.profilePath, "<plist>");
    EXPECT_THAT(complaints(examinePreferences(tool.services)), testing::ElementsAre(HasSubstr("can't be used")));
}

TEST_F(Doctor, EverythingOffIsWorthKnowingAndNoProblem) {
    EXPECT_THAT(complaints(examinePreferences(tool.services)), IsEmpty());
    EXPECT_THAT(complaints(examinePreferences(tool.services), Finding::Kind::notice),
                testing::ElementsAre(HasSubstr("everything is switched off")));
    EXPECT_THAT(complaints(examineService(tool.services)), IsEmpty());
}

// What is to be done about the only thing that is worth knowing.
std::string onlyAdvice(const Findings& findings) {
    std::string advice;
    for (const Finding& finding : findings) {
        if (finding.kind == Finding::Kind::good) continue;
        EXPECT_EQ(advice, "") << finding.text;
        advice = finding.mend;
    }
    return advice;
}

TEST_F(Doctor, WhatIsOffIsSwitchedOnByOneCommand) {
    EXPECT_EQ(onlyAdvice(examinePreferences(tool.services)), "quorvixctl enable hang|memory|activations");
    installTraceLibrary();
    EXPECT_EQ(onlyAdvice(examineTraceLibrary(tool.services)), "quorvixctl enable hang");
    ASSERT_EQ(tool.run({"enable", "hang"}), ExitStatus::done);
    EXPECT_EQ(onlyAdvice(examinePreferences(tool.services)), "");
    EXPECT_EQ(onlyAdvice(examineTraceLibrary(tool.services)), "");
}

// Neither "enable" nor "prefs set" does anything about a key that the profile decides.
TEST_F(Doctor, WhatTheProfileKeepsOffIsNotAdvisedToBeSwitchedOn) {
    tests::writeWholeFile(tool.services.profilePath,
                          "<plist version=\"1.0\"><dict><key>QXProfile.QuorvixEnabled</key><false/></dict></plist>");
    EXPECT_EQ(onlyAdvice(examinePreferences(tool.services)),
              "quorvixctl enable memory|activations; of hang tracing the managed profile decides");
    installTraceLibrary();
    for (const char* key : {"QuorvixEnabled", "QuorvixEnableSwivex"}) {
        tests::writeWholeFile(tool.services.profilePath, "<plist version=\"1.0\"><dict><key>QXProfile." +
                                                             std::string(key) + "</key><false/></dict></plist>");
        EXPECT_EQ(onlyAdvice(examineTraceLibrary(tool.services)), "none here: the managed profile decides that") << key;
    }
}

TEST_F(Doctor, AValueThatTheProfileSpoilsIsMendedThere) {
    tests::writeWholeFile(tool.services.profilePath,
                          "<plist version=\"1.0\"><dict><key>QXProfile.QuorvixDailyLogLimit"
                          "</key><string>many</string></dict></plist>");
    ASSERT_EQ(tool.run({"prefs", "set", "QuorvixEnabled", "true"}), ExitStatus::done);
    EXPECT_EQ(onlyAdvice(examinePreferences(tool.services)),
              "give it a number in the managed profile, or take it out of there");
}

TEST_F(Doctor, ADaemonThatShouldRunAndDoesNotIsAProblem) {
    ASSERT_EQ(tool.run({"prefs", "set", "QuorvixEnabled", "true"}), ExitStatus::done);
    EXPECT_THAT(complaints(examineService(tool.services)), testing::ElementsAre(HasSubstr("does not run, although")));
}

TEST_F(Doctor, ReportsThatAreSwitchedOnNeedTheTraceLibrary) {
    EXPECT_THAT(complaints(examineTraceLibrary(tool.services)), IsEmpty());
    ASSERT_EQ(tool.run({"prefs", "set", "QuorvixEnableSwivex", "true"}), ExitStatus::done);
    EXPECT_THAT(complaints(examineTraceLibrary(tool.services)), testing::ElementsAre(HasSubstr("is missing")));
    fs::create_directories(at("/usr/lib"));
    tests::writeWholeFile(at("/usr/lib/libswivex.dylib"), "no library");
    chmod(at("/usr/lib/libswivex.dylib").c_str(), 0666);
    EXPECT_THAT(complaints(examineTraceLibrary(tool.services)),
                testing::ElementsAre(HasSubstr("can be changed by others")));
    chmod(at("/usr/lib/libswivex.dylib").c_str(), 0644);
    EXPECT_THAT(complaints(examineTraceLibrary(tool.services)), testing::ElementsAre(HasSubstr("can't be used")));
}

TEST_F(Doctor, TracingIsLookedAtStepByStep) {
    EXPECT_THAT(complaints(examineTracing(tool.services)), testing::ElementsAre(HasSubstr("is not mounted")));
    fs::create_directories(at("/sys/kernel/tracing/instances"));
    EXPECT_THAT(complaints(examineTracing(tool.services), Finding::Kind::notice),
                testing::ElementsAre(HasSubstr("is not armed")));
    fs::create_directories(at("/sys/kernel/tracing/instances/swivex"));
    tests::writeWholeFile(at("/sys/kernel/tracing/instances/swivex/tracing_on"), "0\n");
    EXPECT_THAT(complaints(examineTracing(tool.services), Finding::Kind::notice),
                testing::ElementsAre(HasSubstr("stopped")));
    tests::writeWholeFile(at("/sys/kernel/tracing/instances/swivex/tracing_on"), "1\n");
    EXPECT_THAT(examineTracing(tool.services)[0].kind, Finding::Kind::good);
}

// Whether tracefs is there or not, and whether the host has armed its recorder.
TEST_F(Doctor, InAContainerNobodyIsSentToTheFlightRecorder) {
    tool.services.seesTheKernelsIds = false;
    for (const char* path : {"/sys/kernel", "/sys/kernel/tracing/instances", "/sys/kernel/tracing/instances/swivex"}) {
        fs::create_directories(at(path));
        const Findings findings = examineTracing(tool.services);
        EXPECT_THAT(complaints(findings, Finding::Kind::notice),
                    testing::ElementsAre(HasSubstr("can't tell this container's processes")));
        EXPECT_THAT(findings[0].mend, testing::Not(HasSubstr("recorder on")));
    }
}

TEST_F(Doctor, TheStatusTellsWhetherThereIsAProblem) {
    fs::create_directories(at("/sys/kernel/tracing/instances"));
    EXPECT_EQ(tool.run({"doctor", "--json"}), ExitStatus::done) << tool.out.str();
    EXPECT_EQ(nlohmann::json::parse(tool.out.str())["problems"], 0);
    fs::remove(at("/run/vex/notify"));
    EXPECT_EQ(tool.run({"doctor"}), ExitStatus::failed);
    EXPECT_THAT(tool.out.str(), HasSubstr("-> systemd-tmpfiles"));
    EXPECT_THAT(tool.out.str(), HasSubstr("Problems: 1\n"));
    EXPECT_THAT(tool.out.str(), testing::Not(HasSubstr("\033")));
}

TEST_F(Doctor, ColoursAreForATerminal) {
    tool.services.colours = true;
    tool.run({"doctor"});
    EXPECT_THAT(tool.out.str(), HasSubstr("\033[32mgood"));
}

}  // namespace
}  // namespace quorvix::ctl
