#include "platform/linux/Files.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "platform/linux/Descriptor.h"
#include "platform/linux/FileName.h"

namespace quorvix::linuxos {

namespace {

constexpr std::uint32_t kModeBits = 07777;

bool holdsNul(std::string_view path) { return path.find('\0') != std::string_view::npos; }

Result<void> resultOf(int returned) {
    if (returned < 0) return ErrorCode{errno};
    return {};
}

// The directory as a handle, so that its files can't be led elsewhere while it is used.
Result<Descriptor> openDirectory(std::string_view path) {
    if (holdsNul(path)) return ErrorCode{EINVAL};
    Descriptor directory(::open(std::string(path).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!directory) return ErrorCode{errno};
    return directory;
}

}  // namespace

Result<FileStatus> LinuxFiles::status(std::string_view path) {
    if (holdsNul(path)) return ErrorCode{EINVAL};
    struct stat status {};
    if (::stat(std::string(path).c_str(), &status) != 0) return ErrorCode{errno};
    return FileStatus{.isDirectory = S_ISDIR(status.st_mode)};
}

Result<void> LinuxFiles::unlink(std::string_view path) {
    if (holdsNul(path)) return ErrorCode{EINVAL};
    return resultOf(::unlink(std::string(path).c_str()));
}

Result<void> LinuxFiles::makeDirectory(std::string_view path, std::uint32_t mode) {
    if (holdsNul(path)) return ErrorCode{EINVAL};
    return resultOf(::mkdir(std::string(path).c_str(), mode));
}

Result<int> LinuxFiles::createFile(const FileLocation& file, std::uint32_t mode, int) {
    if (const int error = fileNameError(file.name)) return ErrorCode{error};
    const auto directory = openDirectory(file.directory);
    if (!directory) return directory.error();
    Descriptor created(openBeneath(directory->get(), std::string(file.name).c_str(), mode));
    if (!created) return ErrorCode{errno};
    // Whoever is told that there is no file must not find one later.
    const auto failed = [&](int error) {
        unlinkat(directory->get(), std::string(file.name).c_str(), 0);
        return ErrorCode{error};
    };
    struct stat status {};
    if (fstat(created.get(), &status) != 0) return failed(errno);
    if (!S_ISREG(status.st_mode)) return ErrorCode{EEXIST};
    // Non-blocking was for the open alone: the writer of the file must not inherit it.
    const int flags = fcntl(created.get(), F_GETFL);
    if (flags < 0 || fcntl(created.get(), F_SETFL, flags & ~O_NONBLOCK) != 0) return failed(errno);
    return created.release();
}

// Non-blocking, because a FIFO or a device may stand in the file's place.
int LinuxFiles::openBeneath(int directory, const char* name, std::uint32_t mode) const {
    constexpr int kFlags = O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
    if (calls_.openat2) {
        open_how how{};
        how.flags = kFlags;
        how.mode = mode & kModeBits;
        how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS;
        const long descriptor = syscall(SYS_openat2, directory, name, &how, sizeof how);
        if (descriptor >= 0) return static_cast<int>(descriptor);
        // An older kernel, or a system-call filter that does not know the call. The name was checked to be one name,
        // so that the plain call stays beneath the directory too.
        if (errno != ENOSYS && errno != EPERM) return -1;
    }
    return openat(directory, name, kFlags, mode & kModeBits);
}

Result<void> LinuxFiles::unlinkFile(const FileLocation& file) {
    if (const int error = fileNameError(file.name)) return ErrorCode{error};
    const auto directory = openDirectory(file.directory);
    if (!directory) return directory.error();
    return resultOf(unlinkat(directory->get(), std::string(file.name).c_str(), 0));
}

Result<void> LinuxFiles::moveFile(const FileLocation& from, const FileLocation& to) {
    for (const FileLocation& file : {from, to}) {
        if (const int error = fileNameError(file.name)) return ErrorCode{error};
    }
    const auto source = openDirectory(from.directory);
    if (!source) return source.error();
    const auto target = openDirectory(to.directory);
    if (!target) return target.error();
    return resultOf(
        moveNoReplace(source->get(), std::string(from.name).c_str(), target->get(), std::string(to.name).c_str()));
}

int LinuxFiles::moveNoReplace(int fromDirectory, const char* from, int toDirectory, const char* to) const {
    if (calls_.renameNoReplace) {
        if (renameat2(fromDirectory, from, toDirectory, to, RENAME_NOREPLACE) == 0) return 0;
        // Some file systems do not know the flag, some kernels not the call.
        if (errno != EINVAL && errno != ENOSYS) return -1;
    }
    // A link is never made over a file that exists either; in between the file has both names.
    if (linkat(fromDirectory, from, toDirectory, to, 0) != 0) return -1;
    if (unlinkat(fromDirectory, from, 0) == 0) return 0;
    const int error = errno;
    unlinkat(toDirectory, to, 0);
    errno = error;
    return -1;
}

// The descriptor is gone whatever close says, and the file was never promised to be on disk.
void LinuxFiles::close(int descriptor) { ::close(descriptor); }

Result<int> LinuxFiles::createNewFile(const FileLocation& file, std::uint32_t mode, int) {
    if (const int error = fileNameError(file.name)) return ErrorCode{error};
    const auto directory = openDirectory(file.directory);
    if (!directory) return directory.error();
    const std::string name(file.name);
    if (unlinkat(directory->get(), name.c_str(), 0) != 0 && errno != ENOENT) return ErrorCode{errno};
    // Exclusive creation opens neither a link nor anything else that was put there in between.
    const int created =
        openat(directory->get(), name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, mode & kModeBits);
    if (created < 0) return ErrorCode{errno};
    return created;
}

Result<void> LinuxFiles::write(int descriptor, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t count = ::write(descriptor, bytes.data(), bytes.size());
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return ErrorCode{errno};
        // No progress without an error is not known of regular files; it must not become an endless loop.
        if (count == 0) return ErrorCode{EIO};
        bytes.remove_prefix(static_cast<std::size_t>(count));
    }
    return {};
}

Result<void> LinuxFiles::closeChecked(int descriptor) {
    // Interrupted or not, the descriptor is gone.
    if (::close(descriptor) != 0 && errno != EINTR) return ErrorCode{errno};
    return {};
}

Result<void> LinuxFiles::replaceFile(const FileLocation& from, const FileLocation& to) {
    for (const FileLocation& file : {from, to}) {
        if (const int error = fileNameError(file.name)) return ErrorCode{error};
    }
    const auto source = openDirectory(from.directory);
    if (!source) return source.error();
    const auto target = openDirectory(to.directory);
    if (!target) return target.error();
    return resultOf(
        renameat(source->get(), std::string(from.name).c_str(), target->get(), std::string(to.name).c_str()));
}

}  // namespace quorvix::linuxos
