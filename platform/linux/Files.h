#pragma once

#include "platform/Files.h"

namespace quorvix::linuxos {

// Which newer system calls may be used; a test takes one away to stand on an older kernel.
struct FileCalls {
    bool openat2 = true;
    bool renameNoReplace = true;
};

// The daemon's file calls. Whole paths are the daemon's own; names in a FileLocation may hold a client's text and are
// held beneath their directory: no slash, no link, and only a regular file is ever opened. Never blocks on what stands
// in a file's place (a FIFO). Has no state; callable from any thread.
class LinuxFiles : public Files {
public:
    explicit LinuxFiles(FileCalls calls = {}) : calls_(calls) {}

    Result<FileStatus> status(std::string_view path) override;
    Result<void> unlink(std::string_view path) override;
    Result<void> makeDirectory(std::string_view path, std::uint32_t mode) override;
    // Fails with EEXIST where something other than a file or directory stands, ELOOP where a link does.
    Result<int> createFile(const FileLocation& file, std::uint32_t mode, int protectionClass) override;
    Result<void> unlinkFile(const FileLocation& file) override;
    // EXDEV between file systems: nothing is copied.
    Result<void> moveFile(const FileLocation& from, const FileLocation& to) override;
    void close(int descriptor) override;
    // EEXIST where something was put in the place at that moment.
    Result<int> createNewFile(const FileLocation& file, std::uint32_t mode, int protectionClass) override;
    Result<void> write(int descriptor, std::string_view bytes) override;
    Result<void> closeChecked(int descriptor) override;
    Result<void> replaceFile(const FileLocation& from, const FileLocation& to) override;

private:
    int openBeneath(int directory, const char* name, std::uint32_t mode) const;
    int moveNoReplace(int fromDirectory, const char* from, int toDirectory, const char* to) const;

    FileCalls calls_;
};

}  // namespace quorvix::linuxos
