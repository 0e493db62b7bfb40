#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <optional>
#include <string>

#include "platform/linux/Files.h"
#include "platform/sim/SimFiles.h"
#include "tests/support/TemporaryFolder.h"

namespace quorvix::files_contract {
namespace {

// A harness gives the service, a folder of its own ("tmp" and "spool" in it) and a look at the outcome.
struct LinuxWorld {
    explicit LinuxWorld(linuxos::FileCalls calls = {}) : files(calls) {
        mkdir(folder.path("tmp").c_str(), 0755);
        mkdir(folder.path("spool").c_str(), 0755);
    }
    std::string path(const std::string& name) const { return folder.path(name); }
    std::optional<std::string> read(const std::string& name) const {
        struct stat status {};
        if (stat(path(name).c_str(), &status) != 0) return std::nullopt;
        return tests::readWholeFile(path(name));
    }
    std::uint32_t mode(const std::string& name) const {
        struct stat status {};
        return stat(path(name).c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
    }

    tests::TemporaryFolder folder;
    linuxos::LinuxFiles files;
};

struct OldKernelWorld : LinuxWorld {
    OldKernelWorld() : LinuxWorld({.openat2 = false, .renameNoReplace = false}) {}
};

struct SimWorld {
    SimWorld() {
        files.addDirectory("/world/tmp");
        files.addDirectory("/world/spool");
    }
    std::string path(const std::string& name) const { return "/world/" + name; }
    std::optional<std::string> read(const std::string& name) const { return files.read(path(name)); }
    std::uint32_t mode(const std::string& name) const { return files.mode(path(name)).value_or(0); }

    sim::SimFiles files;
};

template <class World>
class FilesContract : public testing::Test {
protected:
    void SetUp() override { mask_ = umask(0); }
    void TearDown() override { umask(mask_); }

    Result<int> create(const std::string& directory, std::string_view name, std::uint32_t mode = 0644) {
        return world_.files.createFile({world_.path(directory), name}, mode, 4);
    }
    // Creates a file with this content and closes it.
    void write(const std::string& directory, std::string_view name, std::string_view content) {
        const auto descriptor = create(directory, name);
        ASSERT_TRUE(descriptor);
        EXPECT_EQ(::write(*descriptor, content.data(), content.size()), static_cast<ssize_t>(content.size()));
        world_.files.close(*descriptor);
    }
    Result<void> move(const std::string& from, const std::string& to, std::string_view name) {
        return world_.files.moveFile({world_.path(from), name}, {world_.path(to), name});
    }
    template <class T>
    static int errorOf(const Result<T>& result) {
        return result ? 0 : result.error().value;
    }

    World world_;
    mode_t mask_ = 0;
};

using Worlds = testing::Types<LinuxWorld, OldKernelWorld, SimWorld>;
TYPED_TEST_SUITE(FilesContract, Worlds);

TYPED_TEST(FilesContract, CreatesAFileThatCanBeWrittenAndReadBack) {
    const auto descriptor = this->create("tmp", "report");
    ASSERT_TRUE(descriptor);
    EXPECT_EQ(write(*descriptor, "trace", 5), 5);
    char back[8] = {};
    EXPECT_EQ(pread(*descriptor, back, sizeof back, 0), 5);
    EXPECT_STREQ(back, "trace");
    this->world_.files.close(*descriptor);
    EXPECT_EQ(this->world_.read("tmp/report"), "trace");
}

TYPED_TEST(FilesContract, GivesTheModeThatIsAskedFor) {
    const auto descriptor = this->create("tmp", "report", 0644);
    ASSERT_TRUE(descriptor);
    this->world_.files.close(*descriptor);
    EXPECT_EQ(this->world_.mode("tmp/report"), 0644u);
    EXPECT_TRUE(this->world_.files.makeDirectory(this->world_.path("tmp/inner"), 0755));
    EXPECT_EQ(this->world_.mode("tmp/inner"), 0755u);
}

TYPED_TEST(FilesContract, OpensAnExistingFileWithoutCuttingIt) {
    this->write("tmp", "report", "long content");
    this->write("tmp", "report", "new");
    EXPECT_EQ(this->world_.read("tmp/report"), "newg content");
}

TYPED_TEST(FilesContract, ADescriptorIsBlockingAndClosedOnExec) {
    const auto descriptor = this->create("tmp", "report");
    ASSERT_TRUE(descriptor);
    EXPECT_EQ(fcntl(*descriptor, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_NE(fcntl(*descriptor, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_EQ(fcntl(*descriptor, F_GETFL) & O_ACCMODE, O_RDWR);
    this->world_.files.close(*descriptor);
}

TYPED_TEST(FilesContract, NamesThatAreNotOneNameFail) {
    EXPECT_TRUE(this->world_.files.makeDirectory(this->world_.path("tmp/a"), 0755));
    EXPECT_EQ(this->errorOf(this->create("tmp", "a/b")), ENOENT);
    EXPECT_EQ(this->errorOf(this->create("tmp", "../escaped")), ENOENT);
    EXPECT_EQ(this->errorOf(this->create("tmp", "/escaped")), ENOENT);
    EXPECT_EQ(this->errorOf(this->create("tmp", "")), ENOENT);
    EXPECT_EQ(this->errorOf(this->create("tmp", ".")), EISDIR);
    EXPECT_EQ(this->errorOf(this->create("tmp", "..")), EISDIR);
    EXPECT_EQ(this->errorOf(this->create("tmp", std::string_view("cut\0here", 8))), EINVAL);
    EXPECT_EQ(this->errorOf(this->create("tmp", std::string(256, 'n'))), ENAMETOOLONG);
    EXPECT_EQ(this->world_.read("escaped"), std::nullopt);
    EXPECT_EQ(this->world_.read("tmp/a/b"), std::nullopt);
}

TYPED_TEST(FilesContract, TheSameNamesFailForUnlinkAndMove) {
    this->write("spool", "outside", "kept");
    EXPECT_EQ(this->errorOf(this->world_.files.unlinkFile({this->world_.path("tmp"), "../spool/outside"})), ENOENT);
    EXPECT_EQ(this->errorOf(this->world_.files.moveFile({this->world_.path("tmp"), "../spool/outside"},
                                                        {this->world_.path("tmp"), "stolen"})),
              ENOENT);
    EXPECT_EQ(this->errorOf(this->world_.files.moveFile({this->world_.path("spool"), "outside"},
                                                        {this->world_.path("tmp"), "a/b"})),
              ENOENT);
    EXPECT_EQ(this->world_.read("spool/outside"), "kept");
}

TYPED_TEST(FilesContract, OddNamesAreTakenAsTheyAre) {
    for (const std::string name : {"line\nbreak", "\xff\xfe", " ", "...", "-rf"}) {
        this->write("tmp", name, "content");
        EXPECT_EQ(this->world_.read("tmp/" + name), "content");
        EXPECT_TRUE(this->move("tmp", "spool", name));
    }
    this->write("tmp", std::string(255, 'n'), "content");
    EXPECT_EQ(this->world_.read("tmp/" + std::string(255, 'n')), "content");
}

TYPED_TEST(FilesContract, CreatingFailsWhereADirectoryStands) {
    EXPECT_TRUE(this->world_.files.makeDirectory(this->world_.path("tmp/report"), 0755));
    EXPECT_EQ(this->errorOf(this->create("tmp", "report")), EISDIR);
}

TYPED_TEST(FilesContract, CreatingFailsWithoutItsDirectory) {
    this->write("tmp", "file", "");
    EXPECT_EQ(this->errorOf(this->create("missing", "report")), ENOENT);
    EXPECT_EQ(this->errorOf(this->create("tmp/file", "report")), ENOTDIR);
}

TYPED_TEST(FilesContract, MovesAFileOnceAndNeverReplaces) {
    this->write("tmp", "report", "first");
    EXPECT_TRUE(this->move("tmp", "spool", "report"));
    EXPECT_EQ(this->world_.read("tmp/report"), std::nullopt);
    EXPECT_EQ(this->world_.read("spool/report"), "first");
    this->write("tmp", "report", "second");
    EXPECT_EQ(this->errorOf(this->move("tmp", "spool", "report")), EEXIST);
    EXPECT_EQ(this->world_.read("tmp/report"), "second");
    EXPECT_EQ(this->world_.read("spool/report"), "first");
}

TYPED_TEST(FilesContract, MovingWhatIsNotThereFails) {
    EXPECT_EQ(this->errorOf(this->move("tmp", "spool", "report")), ENOENT);
    this->write("tmp", "report", "kept");
    EXPECT_EQ(this->errorOf(this->move("tmp", "missing", "report")), ENOENT);
    EXPECT_EQ(this->world_.read("tmp/report"), "kept");
}

TYPED_TEST(FilesContract, UnlinksFilesByNameAndByPath) {
    this->write("tmp", "one", "");
    this->write("tmp", "two", "");
    EXPECT_TRUE(this->world_.files.unlinkFile({this->world_.path("tmp"), "one"}));
    EXPECT_TRUE(this->world_.files.unlink(this->world_.path("tmp/two")));
    EXPECT_EQ(this->world_.read("tmp/one"), std::nullopt);
    EXPECT_EQ(this->world_.read("tmp/two"), std::nullopt);
    EXPECT_EQ(this->errorOf(this->world_.files.unlinkFile({this->world_.path("tmp"), "one"})), ENOENT);
    EXPECT_EQ(this->errorOf(this->world_.files.unlink(this->world_.path("tmp/two"))), ENOENT);
}

TYPED_TEST(FilesContract, UnlinkRefusesDirectories) {
    EXPECT_EQ(this->errorOf(this->world_.files.unlink(this->world_.path("tmp"))), EISDIR);
    EXPECT_TRUE(this->world_.files.makeDirectory(this->world_.path("tmp/a"), 0755));
    EXPECT_EQ(this->errorOf(this->world_.files.unlinkFile({this->world_.path("tmp"), "a"})), EISDIR);
}

TYPED_TEST(FilesContract, AnUnlinkedFileCanStillBeWritten) {
    const auto descriptor = this->create("tmp", "report");
    ASSERT_TRUE(descriptor);
    EXPECT_TRUE(this->world_.files.unlinkFile({this->world_.path("tmp"), "report"}));
    EXPECT_EQ(write(*descriptor, "x", 1), 1);
    this->world_.files.close(*descriptor);
    EXPECT_EQ(this->world_.read("tmp/report"), std::nullopt);
}

TYPED_TEST(FilesContract, StatusTellsDirectoriesFromFiles) {
    this->write("tmp", "file", "");
    const auto directory = this->world_.files.status(this->world_.path("tmp"));
    ASSERT_TRUE(directory);
    EXPECT_TRUE(directory->isDirectory);
    const auto file = this->world_.files.status(this->world_.path("tmp/file"));
    ASSERT_TRUE(file);
    EXPECT_FALSE(file->isDirectory);
    EXPECT_EQ(this->errorOf(this->world_.files.status(this->world_.path("missing"))), ENOENT);
    EXPECT_EQ(this->errorOf(this->world_.files.status(this->world_.path("tmp/file/below"))), ENOTDIR);
    EXPECT_EQ(this->errorOf(this->world_.files.status("")), ENOENT);
    EXPECT_EQ(this->errorOf(this->world_.files.status(std::string_view("/\0", 2))), EINVAL);
}

TYPED_TEST(FilesContract, MakesOneDirectoryAtATime) {
    EXPECT_EQ(this->errorOf(this->world_.files.makeDirectory(this->world_.path("x/y"), 0755)), ENOENT);
    EXPECT_TRUE(this->world_.files.makeDirectory(this->world_.path("x"), 0755));
    EXPECT_TRUE(this->world_.files.makeDirectory(this->world_.path("x/y"), 0755));
    EXPECT_EQ(this->errorOf(this->world_.files.makeDirectory(this->world_.path("x"), 0755)), EEXIST);
    this->write("tmp", "file", "");
    EXPECT_EQ(this->errorOf(this->world_.files.makeDirectory(this->world_.path("tmp/file"), 0755)), EEXIST);
    EXPECT_EQ(this->errorOf(this->world_.files.makeDirectory(this->world_.path("tmp/file/a"), 0755)), ENOTDIR);
}

// Files that are made new, written whole and moved over older ones.

TYPED_TEST(FilesContract, ANewFileHoldsNothingOfTheOlderOne) {
    this->write("tmp", "report", "something long");
    const auto descriptor = this->world_.files.createNewFile({this->world_.path("tmp"), "report"}, 0640, 4);
    ASSERT_TRUE(descriptor);
    EXPECT_NE(fcntl(*descriptor, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_TRUE(this->world_.files.write(*descriptor, "new"));
    EXPECT_TRUE(this->world_.files.write(*descriptor, ""));
    EXPECT_TRUE(this->world_.files.write(*descriptor, "er"));
    EXPECT_TRUE(this->world_.files.closeChecked(*descriptor));
    EXPECT_EQ(this->world_.read("tmp/report"), "newer");
    EXPECT_EQ(this->world_.mode("tmp/report"), 0640u);
}

TYPED_TEST(FilesContract, ANewFileNeedsOneNameAndItsFolder) {
    EXPECT_EQ(this->errorOf(this->world_.files.createNewFile({this->world_.path("missing"), "r"}, 0644, 4)), ENOENT);
    EXPECT_EQ(this->errorOf(this->world_.files.createNewFile({this->world_.path("tmp"), "a/b"}, 0644, 4)), ENOENT);
    EXPECT_TRUE(this->world_.files.makeDirectory(this->world_.path("tmp/report"), 0755));
    EXPECT_EQ(this->errorOf(this->world_.files.createNewFile({this->world_.path("tmp"), "report"}, 0644, 4)), EISDIR);
}

TYPED_TEST(FilesContract, WritesMegabytesWhole) {
    const auto descriptor = this->world_.files.createNewFile({this->world_.path("tmp"), "report"}, 0644, 4);
    ASSERT_TRUE(descriptor);
    const std::string content(3 << 20, 'x');
    EXPECT_TRUE(this->world_.files.write(*descriptor, content));
    EXPECT_TRUE(this->world_.files.closeChecked(*descriptor));
    EXPECT_EQ(this->world_.read("tmp/report"), content);
}

TYPED_TEST(FilesContract, WhatIsNotOpenCannotBeWrittenOrClosed) {
    EXPECT_EQ(this->errorOf(this->world_.files.write(-1, "x")), EBADF);
    EXPECT_EQ(this->errorOf(this->world_.files.closeChecked(-1)), EBADF);
}

TYPED_TEST(FilesContract, ReplacingMovesOverAnOlderFile) {
    this->write("tmp", "report", "second");
    this->write("spool", "report", "first");
    const std::string tmp = this->world_.path("tmp");
    const std::string spool = this->world_.path("spool");
    EXPECT_TRUE(this->world_.files.replaceFile({tmp, "report"}, {spool, "report"}));
    EXPECT_EQ(this->world_.read("tmp/report"), std::nullopt);
    EXPECT_EQ(this->world_.read("spool/report"), "second");
    EXPECT_EQ(this->errorOf(this->world_.files.replaceFile({tmp, "report"}, {spool, "report"})), ENOENT);
    EXPECT_EQ(this->errorOf(this->world_.files.replaceFile({spool, "report"}, {tmp, "a/b"})), ENOENT);
    EXPECT_EQ(this->errorOf(this->world_.files.replaceFile({spool, "report"}, {this->world_.path("missing"), "r"})),
              ENOENT);
    EXPECT_TRUE(this->world_.files.makeDirectory(this->world_.path("tmp/report"), 0755));
    EXPECT_EQ(this->errorOf(this->world_.files.replaceFile({spool, "report"}, {tmp, "report"})), EISDIR);
    EXPECT_EQ(this->world_.read("spool/report"), "second");
}

}  // namespace
}  // namespace quorvix::files_contract
