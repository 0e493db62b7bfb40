#include "ctl/PruneCommand.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <set>

#include "tests/ctl/Tool.h"
#include "tests/support/TemporaryFolder.h"

namespace quorvix::ctl {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::UnorderedElementsAre;

class PruneCommandTest : public testing::Test {
protected:
    PruneCommandTest() {
        tool_.services.spoolFolder = folder_.path("spool");
        tool_.services.reportFolder = folder_.path("reports");
        std::filesystem::create_directory(tool_.services.spoolFolder);
        std::filesystem::create_directory(tool_.services.reportFolder);
    }
    void write(const std::string& path, const std::string& content, int daysAgo) {
        std::ofstream(path) << content;
        const time_t moment = ::time(nullptr) - time_t{daysAgo} * 24 * 3600;
        const timespec times[] = {{moment, 0}, {moment, 0}};
        ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    }
    void hangReport(const std::string& name, const std::string& program, int daysAgo) {
        write(tool_.services.spoolFolder + "/" + name,
              R"(...{"Reason":"a \"ProcessPath\":\"x\"","ServiceName":"s",)"
              R"("ProcessPath":")" +
                  program + R"(","PID":7}...)",
              daysAgo);
    }
    static std::set<std::string> namesIn(const std::string& folder) {
        std::set<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(folder)) names.insert(entry.path().filename());
        return names;
    }
    std::set<std::string> spool() const { return namesIn(tool_.services.spoolFolder); }

    tests::TemporaryFolder folder_;
    Tool tool_;
};

TEST_F(PruneCommandTest, TheNewestReportOfEachProgramStaysWhateverItsWatchIsCalled) {
    hangReport("main-app-2026-01-01-000000.swivex", "/usr/bin/app", 90);
    hangReport("other-app-2026-01-02-000000.swivex", "/usr/bin/app", 80);
    hangReport("main-my-app-2026-01-01-000000.swivex", "/usr/bin/my-app", 95);
    EXPECT_EQ(tool_.run({"report", "prune"}), ExitStatus::done);
    EXPECT_THAT(spool(),
                UnorderedElementsAre("other-app-2026-01-02-000000.swivex", "main-my-app-2026-01-01-000000.swivex"));
    EXPECT_EQ(tool_.out.str(), "main-app-2026-01-01-000000.swivex\n1 removed, 2 kept\n");
}

TEST_F(PruneCommandTest, AReportWithoutARecordBelongsToItsName) {
    write(folder_.path("spool/main-app-2026-01-01-000000.swivex"), "", 90);
    write(folder_.path("spool/main-app-2026-01-02-000000.swivex"), "", 80);
    write(folder_.path("spool/main-bpp-2026-01-02-000000.swivex"), "\"ProcessPath\":", 90);
    write(folder_.path("spool/x.swivex"), "", 99);
    EXPECT_EQ(tool_.run({"report", "prune"}), ExitStatus::done);
    EXPECT_EQ(spool().count("main-app-2026-01-01-000000.swivex"), 0u);
    EXPECT_EQ(spool().size(), 3u);
}

TEST_F(PruneCommandTest, ADryRunRemovesNothing) {
    hangReport("a-2026-01-01-000000.swivex", "/app", 90);
    hangReport("a-2026-01-02-000000.swivex", "/app", 80);
    EXPECT_EQ(tool_.run({"report", "prune", "--dry-run", "--json"}), ExitStatus::done);
    const auto said = nlohmann::json::parse(tool_.out.str());
    EXPECT_EQ(said["removed"], nlohmann::json({"a-2026-01-01-000000.swivex"}));
    EXPECT_EQ(said["kept"], 1);
    EXPECT_EQ(said["dry_run"], true);
    EXPECT_EQ(spool().size(), 2u);
}

TEST_F(PruneCommandTest, OtherFilesLinksAndFoldersAreNotLookedAt) {
    hangReport("new-2026-01-02-000000.swivex", "/app", 0);
    write(folder_.path("spool/notes.txt"), "", 90);
    std::filesystem::create_directory(folder_.path("spool/folder.swivex"));
    write(folder_.path("outside"), "", 90);
    std::filesystem::create_symlink(folder_.path("outside"), folder_.path("spool/link.swivex"));
    ASSERT_EQ(::mkfifo(folder_.path("spool/pipe.swivex").c_str(), 0600), 0);
    EXPECT_EQ(tool_.run({"report", "prune", "--max-days", "0", "--max-mib", "0"}), ExitStatus::done);
    EXPECT_EQ(spool().size(), 5u);
    EXPECT_TRUE(std::filesystem::exists(folder_.path("outside")));
}

TEST_F(PruneCommandTest, TheNumberOfAppsIsAnOption) {
    hangReport("a-2026-01-01-000000.swivex", "/a", 90);
    hangReport("b-2026-01-02-000000.swivex", "/b", 80);
    EXPECT_EQ(tool_.run({"report", "prune", "--keep-apps", "1"}), ExitStatus::done);
    EXPECT_THAT(spool(), ElementsAre("b-2026-01-02-000000.swivex"));
}

TEST_F(PruneCommandTest, MemorySnapshotsAreOfOneOwnerAndWhatIsNotCompleteStays) {
    for (const char* name : {"memory-snapshot-2026-01-01-000000.ips", "memory-snapshot-2026-01-02-000000.ips",
                             ".memory-snapshot-2026-01-01-000000.ips"}) {
        write(folder_.path("reports/") + name, "x", name[17] == '1' ? 90 : 80);
    }
    EXPECT_EQ(tool_.run({"memory", "prune"}), ExitStatus::done);
    EXPECT_THAT(namesIn(folder_.path("reports")), UnorderedElementsAre("memory-snapshot-2026-01-02-000000.ips",
                                                                       ".memory-snapshot-2026-01-01-000000.ips"));
}

TEST_F(PruneCommandTest, AMissingFolderHoldsNothingAndAnUnreadableOneIsSaid) {
    tool_.services.spoolFolder = folder_.path("none");
    EXPECT_EQ(tool_.run({"report", "prune"}), ExitStatus::done);
    EXPECT_EQ(tool_.out.str(), "0 removed, 0 kept\n");
    write(folder_.path("file"), "", 0);
    tool_.services.spoolFolder = folder_.path("file");
    EXPECT_EQ(tool_.run({"report", "prune"}), ExitStatus::failed);
    EXPECT_THAT(tool_.error.str(), HasSubstr("can't be read: Not a directory"));
}

TEST_F(PruneCommandTest, LimitsThatMakeNoSenseAreRefused) {
    EXPECT_EQ(tool_.run({"report", "prune", "--max-days", "-1"}), ExitStatus::usage);
    EXPECT_EQ(tool_.run({"report", "prune", "--max-mib", "much"}), ExitStatus::usage);
    EXPECT_EQ(tool_.run({"memory", "prune", "--keep-apps", "3"}), ExitStatus::usage);
}

}  // namespace
}  // namespace quorvix::ctl
