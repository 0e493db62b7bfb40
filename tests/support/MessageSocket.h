#pragma once

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <vector>

#include "platform/linux/Descriptor.h"
#include "platform/linux/MessageCodec.h"

namespace quorvix::tests {

using linuxos::Descriptor;
using linuxos::MessageEncoder;

inline sockaddr_un unixAddress(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), std::min(path.size(), sizeof address.sun_path - 1));
    return address;
}

// A client's bare socket, connected; empty when that failed (errno says why).
inline Descriptor connectTo(const std::string& path, int type = SOCK_SEQPACKET) {
    Descriptor socket(::socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
    const sockaddr_un address = unixAddress(path);
    if (connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) return {};
    return socket;
}

// Sends one datagram with these descriptors; whether it went whole.
inline bool sendDatagram(int socket, std::span<const std::uint8_t> bytes, std::span<const int> descriptors = {},
                         int flags = 0) {
    iovec place{const_cast<std::uint8_t*>(bytes.data()), bytes.size()};
    alignas(cmsghdr) char control[CMSG_SPACE(16 * sizeof(int))] = {};
    msghdr header{};
    header.msg_iov = &place;
    header.msg_iovlen = 1;
    if (!descriptors.empty()) {
        header.msg_control = control;
        header.msg_controllen = CMSG_SPACE(descriptors.size_bytes());
        cmsghdr* rights = CMSG_FIRSTHDR(&header);
        rights->cmsg_level = SOL_SOCKET;
        rights->cmsg_type = SCM_RIGHTS;
        rights->cmsg_len = CMSG_LEN(descriptors.size_bytes());
        std::memcpy(CMSG_DATA(rights), descriptors.data(), descriptors.size_bytes());
    }
    return sendmsg(socket, &header, MSG_NOSIGNAL | flags) == static_cast<ssize_t>(bytes.size());
}

inline bool sendNumber(int socket, std::int64_t n, int flags = 0) {
    return sendDatagram(socket, MessageEncoder{}.int64("n", n).bytes(), {}, flags);
}

// A memfd as a client makes it. seals 0: none.
inline Descriptor makeMemory(std::uint64_t length, int seals = F_SEAL_SHRINK, unsigned flags = 0) {
    Descriptor memory(memfd_create("client", MFD_CLOEXEC | MFD_ALLOW_SEALING | flags));
    if (ftruncate(memory.get(), static_cast<off_t>(length)) != 0) return {};
    if (seals != 0 && fcntl(memory.get(), F_ADD_SEALS, seals) != 0) return {};
    return memory;
}

// Waits until the other end has closed; false after ten seconds.
inline bool waitForHangUp(int socket) {
    pollfd state{socket, POLLRDHUP, 0};
    return poll(&state, 1, 10000) == 1 && (state.revents & (POLLHUP | POLLRDHUP)) != 0;
}

}  // namespace quorvix::tests
