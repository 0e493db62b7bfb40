#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/Result.h"

namespace quorvix {

struct FileStatus {
    bool isDirectory;
};

// A file named inside a directory that we own. The name may come from a client: it is taken as one name, so that one
// with a slash, "..", or a link in its place fails.
struct FileLocation {
    std::string_view directory;
    std::string_view name;
};

class Files {
public:
    virtual ~Files() = default;
    virtual Result<FileStatus> status(std::string_view path) = 0;
    virtual Result<void> unlink(std::string_view path) = 0;
    virtual Result<void> makeDirectory(std::string_view path, std::uint32_t mode) = 0;

    // Opens for reading and writing, created if absent, not truncated, not exclusive. The descriptor is the caller's.
    // protectionClass has no meaning on Linux and is passed for the record.
    virtual Result<int> createFile(const FileLocation& file, std::uint32_t mode, int protectionClass) = 0;
    virtual Result<void> unlinkFile(const FileLocation& file) = 0;
    // EEXIST when the target exists: a move never replaces a file.
    virtual Result<void> moveFile(const FileLocation& from, const FileLocation& to) = 0;
    virtual void close(int descriptor) = 0;

    // Opens a file that is new: an older one of that name is unlinked first, so that nothing of it can be left inside.
    virtual Result<int> createNewFile(const FileLocation& file, std::uint32_t mode, int protectionClass) = 0;
    // Writes all of it; a short write is completed.
    virtual Result<void> write(int descriptor, std::string_view bytes) = 0;
    // Closes, and says when what was written is lost by that. The descriptor is closed in any case.
    virtual Result<void> closeChecked(int descriptor) = 0;
    // Moves, replacing what is there. EXDEV between file systems: nothing is copied.
    virtual Result<void> replaceFile(const FileLocation& from, const FileLocation& to) = 0;
};

}  // namespace quorvix
