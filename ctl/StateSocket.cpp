#include "ctl/StateSocket.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/linux/Descriptor.h"

namespace quorvix::ctl {

namespace {

using Clock = std::chrono::steady_clock;

// 0, or the errno.
int connectTo(int descriptor, const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) return ENAMETOOLONG;
    std::memcpy(address.sun_path, path.data(), path.size());
    // A full backlog says EAGAIN at once on a socket that does not block.
    return ::connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ? 0 : errno;
}

// 0 when there is something to read, or the errno.
int waitForInput(int descriptor, Clock::time_point deadline) {
    while (true) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
        pollfd poll{.fd = descriptor, .events = POLLIN, .revents = 0};
        const int ready = ::poll(&poll, 1, static_cast<int>(std::max<decltype(left)>(left, 0)));
        if (ready > 0) return 0;
        if (ready == 0) return ETIMEDOUT;
        if (errno != EINTR) return errno;
    }
}

}  // namespace

Result<std::string> readState(const std::string& socketPath, const StateLimits& limits) {
    const auto deadline = Clock::now() + limits.timeout;
    const linuxos::Descriptor connection(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!connection) return ErrorCode{errno};
    if (const int error = connectTo(connection.get(), socketPath)) return ErrorCode{error};

    std::string document;
    char buffer[16 * 1024];
    while (true) {
        if (const int error = waitForInput(connection.get(), deadline)) return ErrorCode{error};
        const ssize_t count = ::read(connection.get(), buffer, sizeof buffer);
        if (count == 0) return document;
        if (count < 0 && errno != EAGAIN && errno != EINTR) return ErrorCode{errno};
        if (count > 0) document.append(buffer, static_cast<std::size_t>(count));
        if (document.size() > limits.bytes) return ErrorCode{EFBIG};
    }
}

}  // namespace quorvix::ctl
