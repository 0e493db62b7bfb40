#pragma once

#include <dirent.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace quorvix::linuxos {

// Reads procfs through one buffer: folders of ids, files and links beneath an open directory. What it gives out is
// valid until its next call. Owned by who reads; one thread at a time.
class ProcfsReader {
public:
    // use(id, inode) for each entry that is named by an id, in the folder's order; the error number, or 0. `use` must
    // not read.
    template <class Use>
    int eachId(int directory, Use&& use) {
        for (;;) {
            const long count = syscall(SYS_getdents64, directory, buffer_.data(), buffer_.size());
            if (count < 0) return errno;
            if (count == 0) return 0;
            for (long at = 0; at < count;) {
                const auto* const entry = reinterpret_cast<const dirent64*>(buffer_.data() + at);
                at += entry->d_reclen;
                const char* const end = entry->d_name + std::strlen(entry->d_name);
                std::int32_t id = 0;
                const auto [after, error] = std::from_chars(entry->d_name, end, id);
                if (error == std::errc() && after == end && id > 0) use(id, std::uint64_t{entry->d_ino});
            }
        }
    }
    // Empty when it can't be read, and error() says why.
    std::string_view file(int directory, const char* path);
    std::string_view link(int directory, const char* path);
    // Of the last file or link; 0: it was read.
    int error() const { return error_; }

private:
    std::string_view taken(ssize_t count);

    int error_ = 0;
    // A directory is read in pieces of this, a file whole: the longest, status, stays below a page even with many
    // processors, but for its lists of processors and memory nodes, which come last.
    alignas(dirent64) std::array<char, 32768> buffer_;
};

}  // namespace quorvix::linuxos
