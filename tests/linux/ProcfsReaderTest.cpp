#include "platform/linux/ProcfsReader.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/linux/Descriptor.h"
#include "tests/support/TemporaryFolder.h"

namespace quorvix::linuxos {
namespace {

class ProcfsReaderTest : public testing::Test {
protected:
    tests::TemporaryFolder folder_;
    Descriptor directory_{::open(folder_.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    ProcfsReader reader_;
};

TEST_F(ProcfsReaderTest, ListsIdsAndNothingElse) {
    for (const char* name : {"1", "4711", "2147483647", "0", "-3", "12x", "x12", "2147483648", "self"}) {
        std::filesystem::create_directory(folder_.path(name));
    }
    std::vector<std::int32_t> ids;
    std::vector<std::uint64_t> inodes;
    ASSERT_EQ(reader_.eachId(directory_.get(),
                             [&](std::int32_t id, std::uint64_t inode) {
                                 ids.push_back(id);
                                 inodes.push_back(inode);
                             }),
              0);
    EXPECT_THAT(ids, testing::UnorderedElementsAre(1, 4711, 2147483647));
    EXPECT_EQ(std::ranges::count(inodes, 0u), 0);
}

TEST_F(ProcfsReaderTest, ListsMoreThanFitsIntoTheBuffer) {
    for (int id = 1; id <= 3000; ++id) tests::writeWholeFile(folder_.path(std::to_string(id)), "");
    std::int64_t sum = 0;
    ASSERT_EQ(reader_.eachId(directory_.get(), [&](std::int32_t id, std::uint64_t) { sum += id; }), 0);
    EXPECT_EQ(sum, 3000 * 3001 / 2);
}

TEST_F(ProcfsReaderTest, WhatIsNoFolderSaysSo) {
    tests::writeWholeFile(folder_.path("file"), "");
    const Descriptor file(::open(folder_.path("file").c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(reader_.eachId(file.get(), [](std::int32_t, std::uint64_t) {}), ENOTDIR);
}

TEST_F(ProcfsReaderTest, ReadsFilesAndLinks) {
    tests::writeWholeFile(folder_.path("file"), "text\n");
    std::filesystem::create_symlink("/bin/app", folder_.path("link"));
    EXPECT_EQ(reader_.file(directory_.get(), "file"), "text\n");
    EXPECT_EQ(reader_.link(directory_.get(), "link"), "/bin/app");
    EXPECT_EQ(reader_.error(), 0);
}

TEST_F(ProcfsReaderTest, WhatCannotBeReadIsEmptyAndHasAReason) {
    std::filesystem::create_directory(folder_.path("folder"));
    EXPECT_EQ(reader_.file(directory_.get(), "folder"), "");
    EXPECT_EQ(reader_.error(), EISDIR);
    EXPECT_EQ(reader_.file(directory_.get(), "missing"), "");
    EXPECT_EQ(reader_.error(), ENOENT);
    EXPECT_EQ(reader_.link(directory_.get(), "folder"), "");
    EXPECT_EQ(reader_.error(), EINVAL);
    tests::writeWholeFile(folder_.path("empty"), "");
    EXPECT_EQ(reader_.file(directory_.get(), "empty"), "");
    EXPECT_EQ(reader_.error(), 0) << "an empty file was read";
}

}  // namespace
}  // namespace quorvix::linuxos
