#include "platform/linux/EndpointSocket.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <optional>

namespace quorvix::linuxos {

namespace {

constexpr int kFirstPassedDescriptor = 3;
// No unit passes more; a broken environment must not make us close thousands of descriptors.
constexpr int kMostPassedDescriptors = 64;

std::optional<long> numberFromEnvironment(const char* variable) {
    const char* text = std::getenv(variable);
    if (!text) return std::nullopt;
    long number = 0;
    const char* end = text + std::strlen(text);
    const auto [stop, error] = std::from_chars(text, end, number);
    if (error != std::errc{} || stop != end) return std::nullopt;
    return number;
}

std::vector<std::string> namesFromEnvironment() {
    const char* text = std::getenv("LISTEN_FDNAMES");
    std::vector<std::string> names;
    if (!text) return names;
    std::string_view rest = text;
    for (;;) {
        const std::size_t colon = rest.find(':');
        names.emplace_back(rest.substr(0, colon));
        if (colon == std::string_view::npos) return names;
        rest.remove_prefix(colon + 1);
    }
}

std::string boundPath(int descriptor) {
    sockaddr_un address{};
    socklen_t length = sizeof address;
    if (getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &length) != 0) return {};
    if (address.sun_family != AF_UNIX || length <= offsetof(sockaddr_un, sun_path)) return {};
    return std::string(address.sun_path, strnlen(address.sun_path, length - offsetof(sockaddr_un, sun_path)));
}

Result<sockaddr_un> makeAddress(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) return ErrorCode{ENAMETOOLONG};
    std::memcpy(address.sun_path, path.data(), path.size());
    return address;
}

enum class Occupant { none, stale, listening };

// What stands at the path. Connecting to a file that is no socket is refused just as a stale socket is, so that it is
// looked at first: such a file is nobody's leftover and is not ours to remove.
Result<Occupant> findOccupant(const std::string& path, const sockaddr_un& address, int type) {
    struct stat status = {};
    if (lstat(path.c_str(), &status) != 0) {
        if (errno == ENOENT) return Occupant::none;
        return ErrorCode{errno};
    }
    if (!S_ISSOCK(status.st_mode)) return ErrorCode{ENOTSOCK};
    const Descriptor probe(socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!probe) return ErrorCode{errno};
    if (connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
        return Occupant::listening;
    }
    switch (errno) {
        case ECONNREFUSED: return Occupant::stale;
        case ENOENT: return Occupant::none;
        // A full backlog, or a socket of another type: somebody is there.
        case EAGAIN:
        case EPROTOTYPE: return Occupant::listening;
        default: return ErrorCode{errno};
    }
}

Result<Descriptor> bindAndListen(const std::string& path, const sockaddr_un& address, int type, mode_t mode,
                                 std::string& failedStep) {
    failedStep = "socket";
    Descriptor descriptor(socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!descriptor) return ErrorCode{errno};
    failedStep = "bind";
    if (bind(descriptor.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        return ErrorCode{errno};
    }
    // Before listen(): nobody can have connected with the mode that the process's mask gave.
    failedStep = "set the mode of";
    if (chmod(path.c_str(), mode) != 0) return ErrorCode{errno};
    failedStep = "listen on";
    if (listen(descriptor.get(), SOMAXCONN) != 0) return ErrorCode{errno};
    return descriptor;
}

}  // namespace

PassedSockets PassedSockets::takeFromEnvironment() {
    PassedSockets passed;
    const std::optional<long> pid = numberFromEnvironment("LISTEN_PID");
    const std::optional<long> count = numberFromEnvironment("LISTEN_FDS");
    const std::vector<std::string> names = namesFromEnvironment();
    unsetenv("LISTEN_PID");
    unsetenv("LISTEN_FDS");
    unsetenv("LISTEN_FDNAMES");
    if (pid != getpid() || !count || *count < 1 || *count > kMostPassedDescriptors) return passed;
    for (int index = 0; index < *count; ++index) {
        const int descriptor = kFirstPassedDescriptor + index;
        const int flags = fcntl(descriptor, F_GETFD);
        if (flags < 0) continue;
        fcntl(descriptor, F_SETFD, flags | FD_CLOEXEC);
        const auto at = static_cast<std::size_t>(index);
        passed.sockets_.push_back({at < names.size() ? names[at] : std::string(), Descriptor(descriptor)});
    }
    return passed;
}

Descriptor PassedSockets::claim(std::string_view name, const std::string& path) {
    for (Socket& socket : sockets_) {
        if (!socket.descriptor) continue;
        if (socket.name == name || boundPath(socket.descriptor.get()) == path) return std::move(socket.descriptor);
    }
    return {};
}

Result<void> checkListening(int descriptor, int type) {
    const auto option = [descriptor](int name) {
        int value = -1;
        socklen_t length = sizeof value;
        return getsockopt(descriptor, SOL_SOCKET, name, &value, &length) == 0 ? value : -1;
    };
    if (option(SO_DOMAIN) != AF_UNIX || option(SO_TYPE) != type || option(SO_ACCEPTCONN) != 1) {
        return ErrorCode{EINVAL};
    }
    const int flags = fcntl(descriptor, F_GETFL);
    if (flags < 0 || fcntl(descriptor, F_SETFL, flags | O_NONBLOCK) != 0) return ErrorCode{errno};
    return {};
}

Result<Descriptor> bindEndpoint(const std::string& path, int type, mode_t mode, std::string& failedStep) {
    failedStep = "name";
    const Result<sockaddr_un> address = makeAddress(path);
    if (!address) return address.error();

    // Two daemons that start at once must not take each other's fresh socket for a stale one.
    failedStep = "lock";
    const std::string lockPath = path + ".lock";
    const Descriptor lock(open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!lock) return ErrorCode{errno};
    while (flock(lock.get(), LOCK_EX) != 0) {
        if (errno != EINTR) return ErrorCode{errno};
    }

    failedStep = "look at";
    const Result<Occupant> occupant = findOccupant(path, *address, type);
    if (!occupant) return occupant.error();
    if (*occupant == Occupant::listening) return ErrorCode{EADDRINUSE};
    failedStep = "remove the old socket of";
    if (*occupant == Occupant::stale && unlink(path.c_str()) != 0) return ErrorCode{errno};
    return bindAndListen(path, *address, type, mode, failedStep);
}

}  // namespace quorvix::linuxos
