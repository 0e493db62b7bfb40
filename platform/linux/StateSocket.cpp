#include "platform/linux/StateSocket.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <utility>

#include "platform/TextFormat.h"
#include "platform/linux/StateService.h"
#include "platform/linux/Utf8.h"

namespace quorvix::linuxos {

namespace {

constexpr std::chrono::seconds kPatience{2};
constexpr std::chrono::seconds kRest{1};
constexpr int kMostIgnoredParts = 64;

bool mayRead(int socket) {
    ucred credentials{};
    socklen_t length = sizeof credentials;
    if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) return false;
    return credentials.uid == 0 || credentials.uid == geteuid();
}

// It takes no input: what a reader sends must not lie about and turn its end of file into a reset. After the shutdown
// nothing more arrives, so that what is there already fits a socket's buffer.
void refuseInput(int socket) {
    shutdown(socket, SHUT_RD);
    std::array<char, 4096> ignored;
    for (int part = 0; part < kMostIgnoredParts; ++part) {
        if (recv(socket, ignored.data(), ignored.size(), MSG_DONTWAIT) <= 0) return;
    }
}

}  // namespace

StateSocket::StateSocket(Descriptor socket, std::shared_ptr<LinuxWorkQueue> queue, std::function<JsonObject()> provider)
    : socket_(std::move(socket)), queue_(std::move(queue)), provider_(std::move(provider)) {}

void StateSocket::resume() {
    queue_->async([self = shared_from_this()] { self->start(); });
}

void StateSocket::start() {
    if (!socket_) return;
    watch_ = queue_->watchDescriptor(socket_.get(), EPOLLIN, [this](std::uint32_t) { acceptOne(); });
}

void StateSocket::acceptOne() {
    Descriptor accepted(accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!accepted) {
        // Whatever it is, a second later is soon enough for an operator, and nothing spins meanwhile.
        if (errno != EAGAIN && errno != EINTR && errno != ECONNABORTED) rest();
        return;
    }
    if (!mayRead(accepted.get())) {
        ++counters_.refusedUser;
    } else if (readers_.size() >= LinuxStateService::kMostReaders) {
        ++counters_.refusedFull;
    } else {
        serve(std::move(accepted));
    }
}

void StateSocket::rest() {
    watch_->setEvents(0);
    queue_->asyncAfter(kRest, [weak = weak_from_this()] {
        const std::shared_ptr<StateSocket> self = weak.lock();
        if (self && self->watch_) self->watch_->setEvents(EPOLLIN);
    });
}

void StateSocket::serve(Descriptor socket) {
    refuseInput(socket.get());
    const std::uint64_t number = nextReader_++;
    Reader& reader = readers_[number];
    reader.socket = std::move(socket);
    std::string text;
    appendTextForm(text, provider_());
    reader.text = withReplacementCharacters(text) + "\n";
    ++counters_.served;
    if (write(reader)) return drop(number);
    reader.watch = queue_->watchDescriptor(reader.socket.get(), EPOLLOUT, [this, number](std::uint32_t) {
        if (write(readers_.at(number))) drop(number);
    });
    if (!reader.watch) return drop(number);
    queue_->asyncAfter(kPatience, [weak = weak_from_this(), number] {
        const std::shared_ptr<StateSocket> self = weak.lock();
        if (!self || !self->readers_.contains(number)) return;
        ++self->counters_.droppedSlow;
        self->drop(number);
    });
}

bool StateSocket::write(Reader& reader) {
    while (reader.written < reader.text.size()) {
        const ssize_t sent = send(reader.socket.get(), reader.text.data() + reader.written,
                                  reader.text.size() - reader.written, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent < 0) {
            if (errno == EINTR) continue;
            return errno != EAGAIN;
        }
        reader.written += static_cast<std::size_t>(sent);
    }
    return true;
}

void StateSocket::drop(std::uint64_t number) {
    const auto found = readers_.find(number);
    if (found == readers_.end()) return;
    found->second.watch.reset();
    readers_.erase(found);
}

void StateSocket::abandon() {
    watch_.reset();
    for (auto& [number, reader] : readers_) reader.watch.reset();
    readers_.clear();
    socket_.reset();
}

}  // namespace quorvix::linuxos
