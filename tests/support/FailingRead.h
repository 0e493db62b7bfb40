#pragma once

#include <sqlite3.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

namespace quorvix::tests {

// While it lives the n-th read of any database fails once with EIO, as that of a device that recovers.
class FailingRead {
public:
    explicit FailingRead(int number) {
        left_ = number;
        use(&read);
    }
    ~FailingRead() { use(nullptr); }
    FailingRead(const FailingRead&) = delete;
    FailingRead& operator=(const FailingRead&) = delete;

    // There were as many reads.
    static bool struck() { return left_ <= 0; }

private:
    static ssize_t read(int descriptor, void* buffer, std::size_t length, off_t offset) {
        if (--left_ != 0) return ::pread(descriptor, buffer, length, offset);
        errno = EIO;
        return -1;
    }
    // SQLite uses one of them, which one was decided when it was built. Nothing: the system's own again.
    static void use(decltype(&read) function) {
        sqlite3_vfs* const vfs = sqlite3_vfs_find(nullptr);
        for (const char* name : {"pread", "pread64"}) {
            vfs->xSetSystemCall(vfs, name, reinterpret_cast<sqlite3_syscall_ptr>(function));
        }
    }

    static inline std::atomic<int> left_ = 0;
};

}  // namespace quorvix::tests
