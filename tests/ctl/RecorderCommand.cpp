#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "tests/ctl/Tool.h"
#include "tests/support/TemporaryFolder.h"

namespace quorvix::ctl {
namespace {

using testing::HasSubstr;

// Without a tracing file system; tests/swivex has one with it.
class RecorderCommandTest : public testing::Test {
protected:
    RecorderCommandTest() { tool.services.traceRoot = folder.path(); }

    tests::TemporaryFolder folder;
    Tool tool;
};

TEST_F(RecorderCommandTest, WithoutATracingFileSystemNothingIsDoneAndThatIsSaid) {
    for (const char* verb : {"on", "off", "status"}) {
        EXPECT_EQ(tool.run({"recorder", verb}), ExitStatus::failed) << verb;
        EXPECT_THAT(tool.error.str(), HasSubstr(folder.path())) << verb;
        EXPECT_EQ(tool.out.str(), "") << verb;
    }
    EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
}

TEST_F(RecorderCommandTest, RecorderThatIsOffIsShownAndSwitchedOffWithoutFailure) {
    std::filesystem::create_directory(folder.path("instances"));
    EXPECT_EQ(tool.run({"recorder", "status"}), ExitStatus::done);
    EXPECT_THAT(tool.out.str(), HasSubstr("The flight recorder is off."));
    EXPECT_EQ(tool.run({"recorder", "status", "--json"}), ExitStatus::done);
    EXPECT_EQ(nlohmann::json::parse(tool.out.str()), (nlohmann::json{{"on", false}}));
    EXPECT_EQ(tool.run({"recorder", "off", "--json"}), ExitStatus::done);
    EXPECT_EQ(nlohmann::json::parse(tool.out.str()), (nlohmann::json{{"on", false}, {"wasOn", false}}));
}

TEST_F(RecorderCommandTest, FolderThatIsNotTheKernelsIsRefused) {
    std::filesystem::create_directories(folder.path("instances/swivex"));
    EXPECT_EQ(tool.run({"recorder", "status"}), ExitStatus::failed);
    EXPECT_EQ(tool.run({"recorder", "off"}), ExitStatus::failed);
    EXPECT_TRUE(std::filesystem::exists(folder.path("instances/swivex")));
}

TEST_F(RecorderCommandTest, SizesAndNamesHaveTheirLimits) {
    EXPECT_EQ(tool.run({"recorder", "on", "--size", "63"}), ExitStatus::usage);
    EXPECT_EQ(tool.run({"recorder", "on", "--size", "1048577"}), ExitStatus::usage);
    EXPECT_EQ(tool.run({"recorder", "on", "--size", "64"}), ExitStatus::failed);
    EXPECT_EQ(tool.run({"recorder", "on", "--size", "1048576"}), ExitStatus::failed);
    for (const char* name : {"", ".", "..", "a/b"}) {
        EXPECT_EQ(tool.run({"recorder", "on", "--instance", name}), ExitStatus::usage) << name;
    }
    EXPECT_EQ(tool.run({"recorder"}), ExitStatus::usage);
}

}  // namespace
}  // namespace quorvix::ctl
