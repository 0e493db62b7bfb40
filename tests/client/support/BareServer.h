/*
 * A SOCK_SEQPACKET socket in a temporary folder, in the place of the daemon: it accepts and receives when the test says
 * so and does nothing else.
 */
#ifndef QUORVIX_TESTS_CLIENT_BARESERVER_H
#define QUORVIX_TESTS_CLIENT_BARESERVER_H

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "quorvix_channel.h"

namespace quorvix::test {

/* Whatever is waited for comes within milliseconds; this is for a machine that is busy with other things. */
inline constexpr int kPatienceMs = 10000;

class Descriptor {
public:
    explicit Descriptor(int number = -1) : number_(number) {}
    Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(number_, other.number_);
        return *this;
    }
    ~Descriptor() { reset(); }
    int get() const { return number_; }
    void reset() {
        if (number_ >= 0) close(number_);
        number_ = -1;
    }

private:
    int number_;
};

class TemporaryFolder {
public:
    TemporaryFolder() {
        char pattern[] = "/tmp/quorvix-client-XXXXXX";
        if (!mkdtemp(pattern)) throw std::runtime_error("mkdtemp");
        path_ = pattern;
    }
    ~TemporaryFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

struct Datagram {
    std::string bytes;
    std::vector<Descriptor> descriptors;
};

/* One accepted connection. */
class Peer {
public:
    explicit Peer(int descriptor) : socket_(descriptor) {}

    /* The next datagram, or nothing at end of file or when none comes. */
    std::optional<Datagram> receive(int patienceMs = kPatienceMs) {
        pollfd waiting{socket_.get(), POLLIN, 0};
        if (poll(&waiting, 1, patienceMs) <= 0) return std::nullopt;
        std::string bytes(70000, '\0');
        alignas(cmsghdr) char control[CMSG_SPACE(8 * sizeof(int))];
        iovec content{bytes.data(), bytes.size()};
        msghdr header{};
        header.msg_iov = &content;
        header.msg_iovlen = 1;
        header.msg_control = control;
        header.msg_controllen = sizeof control;
        const ssize_t length = recvmsg(socket_.get(), &header, MSG_CMSG_CLOEXEC);
        if (length <= 0) return std::nullopt;
        bytes.resize(static_cast<std::size_t>(length));
        Datagram datagram{bytes, {}};
        for (cmsghdr* part = CMSG_FIRSTHDR(&header); part; part = CMSG_NXTHDR(&header, part)) {
            const std::size_t count = (part->cmsg_len - CMSG_LEN(0)) / sizeof(int);
            for (std::size_t i = 0; i < count; ++i) {
                int number;
                std::memcpy(&number, CMSG_DATA(part) + i * sizeof(int), sizeof number);
                datagram.descriptors.emplace_back(number);
            }
        }
        return datagram;
    }

    bool hasClosed() {
        pollfd waiting{socket_.get(), POLLRDHUP, 0};
        return poll(&waiting, 1, kPatienceMs) == 1;
    }
    bool isQuietFor(int ms) {
        pollfd waiting{socket_.get(), POLLIN, 0};
        return poll(&waiting, 1, ms) == 0;
    }
    void send(const std::string& bytes) { (void)!write(socket_.get(), bytes.data(), bytes.size()); }
    void close() { socket_.reset(); }

private:
    Descriptor socket_;
};

class BareServer {
public:
    explicit BareServer(const std::string& directory) : path_(directory + "/com.norvane.quorvixd") { listenAgain(); }
    ~BareServer() { unlink(path_.c_str()); }

    /* Closes the listening socket and makes a new file of the same name, as a restarted daemon does. */
    void listenAgain() {
        unlink(path_.c_str());
        listener_ = Descriptor(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path_.c_str(), sizeof address.sun_path - 1);
        if (bind(listener_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
            listen(listener_.get(), 16) != 0) {
            throw std::runtime_error("listen");
        }
    }
    void stopListening() {
        listener_.reset();
        unlink(path_.c_str());
    }

    Peer accept() {
        pollfd waiting{listener_.get(), POLLIN, 0};
        if (poll(&waiting, 1, kPatienceMs) != 1) throw std::runtime_error("nobody connects");
        return Peer(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    }
    bool somebodyConnectsWithin(int ms) {
        pollfd waiting{listener_.get(), POLLIN, 0};
        return poll(&waiting, 1, ms) == 1;
    }

private:
    std::string path_;
    Descriptor listener_;
};

/* The region as the daemon maps it. */
class MappedRegion {
public:
    explicit MappedRegion(const Descriptor& descriptor) {
        void* address =
            mmap(nullptr, sizeof(quorvix_hang_channel), PROT_READ | PROT_WRITE, MAP_SHARED, descriptor.get(), 0);
        if (address == MAP_FAILED) throw std::runtime_error("mmap");
        channel_ = static_cast<quorvix_hang_channel*>(address);
    }
    ~MappedRegion() { munmap(channel_, sizeof *channel_); }
    MappedRegion(const MappedRegion&) = delete;
    MappedRegion& operator=(const MappedRegion&) = delete;
    quorvix_hang_channel* operator->() const { return channel_; }

    /* The slot of this name; the test has given every watch a name of its own. */
    quorvix_hang_slot& slotNamed(const std::string& name) const {
        for (quorvix_hang_slot& slot : channel_->slots) {
            if (name == std::string(slot.name, strnlen(slot.name, sizeof slot.name))) return slot;
        }
        throw std::runtime_error("no slot " + name);
    }

private:
    quorvix_hang_channel* channel_;
};

inline bool eventually(const std::function<bool()>& condition) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(kPatienceMs);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        poll(nullptr, 0, 1);
    }
    return true;
}

}  // namespace quorvix::test

#endif
