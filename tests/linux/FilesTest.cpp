#include "platform/linux/Files.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>

#include "tests/support/PrivateMounts.h"
#include "tests/support/TemporaryFolder.h"

namespace quorvix::linuxos {
namespace {

// With the newer calls and without them.
class FilesTest : public testing::TestWithParam<bool> {
protected:
    int createError(std::string_view name) {
        const auto descriptor = files_.createFile({folder_.path(), name}, 0644, 4);
        if (!descriptor) return descriptor.error().value;
        files_.close(*descriptor);
        return 0;
    }

    tests::TemporaryFolder folder_;
    LinuxFiles files_{FileCalls{.openat2 = GetParam(), .renameNoReplace = GetParam()}};
};

TEST_P(FilesTest, NeverOpensWhatALinkPointsTo) {
    tests::writeWholeFile(folder_.path("victim"), "untouched");
    std::filesystem::create_symlink("victim", folder_.path("relative"));
    std::filesystem::create_symlink(folder_.path("victim"), folder_.path("absolute"));
    std::filesystem::create_symlink(folder_.path("absent"), folder_.path("dangling"));
    for (const char* name : {"relative", "absolute", "dangling"}) EXPECT_EQ(createError(name), ELOOP) << name;
    EXPECT_EQ(tests::readWholeFile(folder_.path("victim")), "untouched");
    EXPECT_FALSE(std::filesystem::exists(folder_.path("absent")));
}

TEST_P(FilesTest, UnlinkingALinkLeavesItsTarget) {
    tests::writeWholeFile(folder_.path("victim"), "untouched");
    std::filesystem::create_symlink("victim", folder_.path("link"));
    EXPECT_TRUE(files_.unlinkFile({folder_.path(), "link"}));
    EXPECT_TRUE(std::filesystem::exists(folder_.path("victim")));
    EXPECT_FALSE(std::filesystem::is_symlink(folder_.path("link")));
}

// Would wait for ever if it opened the FIFO for real.
TEST_P(FilesTest, AFifoInAFilesPlaceFailsAtOnce) {
    ASSERT_EQ(mkfifo(folder_.path("fifo").c_str(), 0644), 0);
    EXPECT_EQ(createError("fifo"), EEXIST);
}

TEST_P(FilesTest, ASocketInAFilesPlaceFails) {
    const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, folder_.path("socket").c_str(), sizeof address.sun_path - 1);
    ASSERT_EQ(bind(socket, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(createError("socket"), ENXIO);
    close(socket);
}

TEST_P(FilesTest, ADeviceInAFilesPlaceFails) {
    if (mknod(folder_.path("device").c_str(), S_IFCHR | 0600, makedev(1, 3)) != 0) {
        GTEST_SKIP() << "device nodes can't be made here";
    }
    EXPECT_EQ(createError("device"), EEXIST);
}

TEST_P(FilesTest, LeaksNoDescriptor) {
    ASSERT_EQ(mkfifo(folder_.path("fifo").c_str(), 0644), 0);
    const int before = dup(0);
    close(before);
    createError("fifo");
    createError("a/b");
    createError("file");
    EXPECT_TRUE(files_.moveFile({folder_.path(), "file"}, {folder_.path(), "moved"}));
    EXPECT_FALSE(files_.moveFile({folder_.path(), "file"}, {folder_.path(), "moved"}));
    EXPECT_TRUE(files_.unlinkFile({folder_.path(), "moved"}));
    const int after = dup(0);
    close(after);
    EXPECT_EQ(after, before);
}

TEST_P(FilesTest, AMoveToAnotherFileSystemFailsAndKeepsTheFile) {
    const auto moveAcross = [&] {
        const std::string other = folder_.path("other");
        std::filesystem::create_directory(other);
        if (mount("tmpfs", other.c_str(), "tmpfs", 0, "size=64k") != 0) return tests::kCannotUnshare;
        tests::writeWholeFile(folder_.path("file"), "kept");
        const auto moved = files_.moveFile({folder_.path(), "file"}, {other, "file"});
        if (moved || moved.error().value != EXDEV) return 1;
        return tests::readWholeFile(folder_.path("file")) == "kept" ? 0 : 2;
    };
    const int outcome = tests::runInPrivateMounts(moveAcross);
    if (outcome == tests::kCannotUnshare) GTEST_SKIP() << "needs root and mount namespaces";
    EXPECT_EQ(outcome, 0);
}

TEST_P(FilesTest, AReadOnlyFolderAndAFullOneFail) {
    const auto tryThem = [&] {
        const char* folder = folder_.path().c_str();
        // Two entries at most: the folder itself and one file.
        if (mount("tmpfs", folder, "tmpfs", 0, "nr_inodes=2") != 0) return tests::kCannotUnshare;
        if (createError("first") != 0) return 1;
        if (createError("second") != ENOSPC) return 2;
        if (mount(nullptr, folder, nullptr, MS_REMOUNT | MS_RDONLY, nullptr) != 0) return tests::kCannotUnshare;
        if (createError("first") != EROFS) return 3;
        return files_.makeDirectory(folder_.path("directory"), 0755).error().value == EROFS ? 0 : 4;
    };
    const int outcome = tests::runInPrivateMounts(tryThem);
    if (outcome == tests::kCannotUnshare) GTEST_SKIP() << "needs root and mount namespaces";
    EXPECT_EQ(outcome, 0);
}

INSTANTIATE_TEST_SUITE_P(Kernels, FilesTest, testing::Values(true, false),
                         [](const auto& kernel) { return kernel.param ? "Current" : "Older"; });

}  // namespace
}  // namespace quorvix::linuxos
