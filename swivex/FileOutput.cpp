#include "swivex/FileOutput.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>

namespace quorvix::swivex {

namespace {

// Keeps the signals that a write can raise (no reader, file too large) from this thread, and takes back those that it
// did raise. One that was already waiting stays.
class NoWriteSignals {
public:
    NoWriteSignals() {
        ::sigemptyset(&signals_);
        ::sigaddset(&signals_, SIGPIPE);
        ::sigaddset(&signals_, SIGXFSZ);
        ::sigpending(&pending_);
        ::pthread_sigmask(SIG_BLOCK, &signals_, &before_);
    }
    ~NoWriteSignals() {
        for (const int number : {SIGPIPE, SIGXFSZ}) {
            if (::sigismember(&pending_, number) == 1) continue;
            sigset_t one;
            ::sigemptyset(&one);
            ::sigaddset(&one, number);
            constexpr timespec kNow{0, 0};
            while (::sigtimedwait(&one, nullptr, &kNow) < 0 && errno == EINTR) continue;
        }
        ::pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    }
    NoWriteSignals(const NoWriteSignals&) = delete;
    NoWriteSignals& operator=(const NoWriteSignals&) = delete;

private:
    sigset_t signals_{};
    sigset_t pending_{};
    sigset_t before_{};
};

// Waits until a pipe or socket takes a short write without waiting.
bool waitForRoom(int fd, const Deadline& deadline) {
    for (;;) {
        pollfd wanted{fd, POLLOUT, 0};
        const int ready = ::poll(&wanted, 1, static_cast<int>(std::min<long long>(deadline.left().count(), 10000)));
        if (ready > 0) return true;  // an error shows in the write
        if (ready == 0 && deadline.passed()) return false;
        if (ready < 0 && errno != EINTR) return false;
    }
}

}  // namespace

bool isWritable(int fd) {
    const int flags = ::fcntl(fd, F_GETFL);
    if (flags < 0 || (flags & O_PATH) != 0) return false;
    const int access = flags & O_ACCMODE;
    return access == O_WRONLY || access == O_RDWR;
}

bool writeAll(int fd, std::span<const std::uint8_t> bytes, const Deadline& deadline) {
    struct stat status {};
    if (::fstat(fd, &status) != 0) return false;
    const bool isFile = S_ISREG(status.st_mode);
    const NoWriteSignals quiet;
    while (!bytes.empty()) {
        std::size_t part = std::size_t{1} << 20;
        if (!isFile) {
            if (!waitForRoom(fd, deadline)) return false;
            part = PIPE_BUF;
        }
        const ssize_t count = ::write(fd, bytes.data(), std::min(part, bytes.size()));
        if (count > 0) {
            bytes = bytes.subspan(static_cast<std::size_t>(count));
            continue;
        }
        const bool again = count < 0 && (errno == EINTR || errno == EAGAIN);
        if (!again || deadline.passed()) return false;
    }
    return true;
}

}  // namespace quorvix::swivex
