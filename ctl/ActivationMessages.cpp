#include "ctl/ActivationMessages.h"

#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>
#include <thread>

#include "platform/linux/Descriptor.h"
#include "platform/linux/MessageCodec.h"

namespace quorvix::ctl {

namespace {

constexpr std::int64_t kMillisecondsFrom1970To2001 = 978307200000;
constexpr std::int64_t kCommandBegin = 4;
constexpr std::int64_t kCommandEnd = 5;
constexpr std::int64_t kLaunch = 1;
constexpr std::int64_t kResume = 2;

}  // namespace

std::uint64_t activationClockNow() {
    const auto now = std::chrono::floor<std::chrono::milliseconds>(std::chrono::system_clock::now());
    const std::int64_t since = now.time_since_epoch().count() - kMillisecondsFrom1970To2001;
    return since > 0 ? static_cast<std::uint64_t>(since) : 0;
}

std::vector<std::uint8_t> messageOf(const ActivationBegin& begin, std::uint64_t sentAt) {
    linuxos::MessageEncoder message;
    message.int64("command", kCommandBegin).int64("pid", begin.pid).string("bundle-id", begin.bundleID);
    message.uint64("startTime", begin.startTime).uint64("vexStartLatency", sentAt);
    message.int64("app-activation-state", begin.foreground ? 1 : 0);
    message.int64("app-activation-type", begin.launch ? kLaunch : kResume);
    return message.bytes();
}

std::vector<std::uint8_t> messageOf(const ActivationEnd& end) {
    linuxos::MessageEncoder message;
    message.int64("command", kCommandEnd).int64("pid", end.pid).string("bundle-id", end.bundleID);
    message.uint64("endTime", end.endTime).int64("app-activation-state", end.foreground ? 1 : 0);
    message.int64("app-activation-result", end.result);
    return message.bytes();
}

Result<void> sendMessage(const std::string& socketPath, const std::vector<std::uint8_t>& message,
                         std::chrono::milliseconds timeout) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (socketPath.size() >= sizeof address.sun_path) return ErrorCode{ENAMETOOLONG};
    std::memcpy(address.sun_path, socketPath.data(), socketPath.size());
    const linuxos::Descriptor socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket) return ErrorCode{errno};
    const auto end = std::chrono::steady_clock::now() + timeout;
    // A full backlog passes: the daemon takes connections one after the other.
    while (connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        if (errno != EAGAIN && errno != EINTR) return ErrorCode{errno};
        if (std::chrono::steady_clock::now() >= end) return ErrorCode{ETIMEDOUT};
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    if (send(socket.get(), message.data(), message.size(), MSG_NOSIGNAL) < 0) return ErrorCode{errno};
    // The kernel tells nobody of the moment in which the peer reads.
    for (int unread = 1; unread != 0;) {
        if (ioctl(socket.get(), SIOCOUTQ, &unread) != 0) return ErrorCode{errno};
        if (unread == 0) break;
        if (std::chrono::steady_clock::now() >= end) return ErrorCode{ETIMEDOUT};
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return {};
}

}  // namespace quorvix::ctl
