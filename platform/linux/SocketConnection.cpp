#include "platform/linux/SocketConnection.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <utility>

#include "platform/linux/MessageEvents.h"

namespace quorvix::linuxos {

namespace {

// A socket that fails again and again without a datagram between is of no use any more; level-triggered, it would keep
// the queue busy for ever.
constexpr std::uint32_t kMostFailuresInARow = 8;

// Room for exactly the credentials, which the kernel writes first, and the descriptors a datagram may carry; what is
// more is cut by the kernel, closed, and shows in MSG_CTRUNC.
constexpr std::size_t kControlBytes = CMSG_SPACE(sizeof(ucred)) + CMSG_SPACE(kMaximumDescriptors * sizeof(int));

// The descriptors of one datagram, closed when it was handled.
struct ReceivedDescriptors {
    ReceivedDescriptors(const msghdr& header, MappedRegions& regions) {
        // The macros take a header that is not const and change nothing in it.
        auto* mutableHeader = const_cast<msghdr*>(&header);
        for (cmsghdr* part = CMSG_FIRSTHDR(mutableHeader); part; part = CMSG_NXTHDR(mutableHeader, part)) {
            if (part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_RIGHTS) continue;
            const std::size_t received = (part->cmsg_len - CMSG_LEN(0)) / sizeof(int);
            for (std::size_t i = 0; i < received && count < kMaximumDescriptors; ++i) {
                int descriptor = -1;
                std::memcpy(&descriptor, CMSG_DATA(part) + i * sizeof(int), sizeof descriptor);
                descriptors[count].reset(descriptor);
                memories[count] = DescriptorMemory(regions, descriptor);
                objects[count] = &memories[count];
                ++count;
            }
        }
    }

    std::array<Descriptor, kMaximumDescriptors> descriptors;
    std::array<DescriptorMemory, kMaximumDescriptors> memories;
    std::array<SharedMemory*, kMaximumDescriptors> objects{};
    std::size_t count = 0;
};

}  // namespace

SocketConnection::SocketConnection(std::shared_ptr<ConnectionTable> table, MappedRegions& regions, Descriptor socket,
                                   Peer peer, std::shared_ptr<LinuxWorkQueue> queue)
    : table_(std::move(table)),
      regions_(regions),
      socket_(std::move(socket)),
      peer_(std::move(peer)),
      queue_(std::move(queue)),
      datagramsLeft_(table_->limits().datagramsAtDeath) {}

SocketConnection::~SocketConnection() { release(); }

void SocketConnection::setTargetQueue(const std::shared_ptr<WorkQueue>& queue) {
    queue_ = LinuxWorkQueue::from(*queue).shared_from_this();
}

void SocketConnection::setEventHandler(MessageHandler handler) { handler_ = std::move(handler); }

void SocketConnection::resume() {
    if (std::exchange(resumed_, true)) return;
    table_->add(shared_from_this());
    if (queue_->onQueue()) return start();
    queue_->async([self = shared_from_this()] { self->start(); });
}

void SocketConnection::start() {
    if (over_) return;
    started_ = true;
    buffer_ = table_->bufferFor(*queue_);
    const bool diedAlready = peer_.pid > 0 && !peer_.process;
    if (diedAlready) return peerDied();
    socketWatch_ = queue_->watchDescriptor(socket_.get(), EPOLLIN, [this](std::uint32_t) { socketReady(); });
    bool watched = socketWatch_ != nullptr;
    if (watched && peer_.process) {
        processWatch_ = queue_->watchDescriptor(peer_.process.get(), EPOLLIN, [this](std::uint32_t) { peerDied(); });
        watched = processWatch_ != nullptr;
    }
    if (watched) return;
    // Not from here: the caller is the listener's handler, which is still at work on this connection.
    table_->log().standard("message service: connection of pid %d cannot be watched: %@", peer_.pid, ErrorCode{errno});
    queue_->async([self = shared_from_this()] { self->end(); });
}

void SocketConnection::socketReady() {
    if (readOne() == Reading::ended) end();
}

void SocketConnection::peerDied() {
    // One datagram a step, so that the others' come between.
    socketWatch_.reset();
    processWatch_.reset();
    queue_->async([self = shared_from_this()] { self->drainOne(); });
}

void SocketConnection::drainOne() {
    if (over_) return;
    if (datagramsLeft_ == 0) {
        ++table_->counters().cutAtDeath;
        return end();
    }
    --datagramsLeft_;
    const Reading reading = readOne();
    if (reading == Reading::nothing || reading == Reading::ended) return end();
    queue_->async([self = shared_from_this()] { self->drainOne(); });
}

void SocketConnection::finishIfGone() {
    if (!started_ || over_) return;
    std::array<pollfd, 2> states = {pollfd{socket_.get(), POLLRDHUP, 0}, pollfd{peer_.process.get(), POLLIN, 0}};
    const bool diedAlready = peer_.pid > 0 && !peer_.process;
    if (!diedAlready && poll(states.data(), states.size(), 0) <= 0) return;
    for (; datagramsLeft_ > 0; --datagramsLeft_) {
        const Reading reading = readOne();
        if (reading == Reading::nothing || reading == Reading::ended) break;
    }
    if (datagramsLeft_ == 0) ++table_->counters().cutAtDeath;
    end();
}

SocketConnection::Reading SocketConnection::readOne() {
    alignas(cmsghdr) std::array<std::uint8_t, kControlBytes> control;
    iovec place{buffer_->bytes.data(), buffer_->bytes.size()};
    msghdr header{};
    header.msg_iov = &place;
    header.msg_iovlen = 1;
    header.msg_control = control.data();
    header.msg_controllen = control.size();
    const ssize_t received = recvmsg(socket_.get(), &header, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    if (received > 0 || (received == 0 && header.msg_controllen > 0)) {
        // An empty datagram carries its sender's credentials; the end of file carries nothing.
        failuresInARow_ = 0;
        deliverDatagram(std::span(buffer_->bytes).first(static_cast<std::size_t>(received)), header);
        return Reading::delivered;
    }
    if (received == 0 || errno == ECONNRESET) return Reading::ended;
    if (errno == EAGAIN || errno == EINTR) return Reading::nothing;
    const std::string text = ErrorCode{errno}.text();
    ++table_->counters().receiveErrors;
    deliver({.kind = MessageEventKind::errorOther, .pid = peer_.pid, .description = text});
    return ++failuresInARow_ < kMostFailuresInARow ? Reading::failed : Reading::ended;
}

void SocketConnection::deliverDatagram(std::span<const std::uint8_t> datagram, const msghdr& header) {
    const ReceivedDescriptors descriptors(header, regions_);
    DecodedMessage decoded;
    if (header.msg_flags & MSG_TRUNC) {
        decoded.error = DecodeError::tooLong;
    } else if (header.msg_flags & MSG_CTRUNC) {
        decoded.error = DecodeError::tooManyDescriptors;
    } else {
        decoded = decodeMessage(datagram, std::span(descriptors.objects).first(descriptors.count), buffer_->entries);
    }
    if (decoded.error != DecodeError::none) {
        table_->counters().undecodable.fetch_add(1, std::memory_order_relaxed);
        const std::string text = describeUndecodable(datagram.size(), decoded.error, decoded.untrustedKey);
        return deliver({.kind = MessageEventKind::other, .pid = peer_.pid, .description = text});
    }
    table_->counters().messages.fetch_add(1, std::memory_order_relaxed);
    const MessageDictionary dictionary(decoded.entries, objectIdOf(decoded.entries.data()));
    deliver({.kind = MessageEventKind::dictionary, .dictionary = &dictionary, .pid = peer_.pid});
}

void SocketConnection::deliver(MessageEvent event) {
    event.id = event.dictionary ? event.dictionary->id() : objectIdOf(&event);
    event.typeId = typeIdOf(event.kind);
    if (handler_) handler_(event);
}

void SocketConnection::postTermination() {
    queue_->async([self = shared_from_this()] {
        if (self->over_ || !self->started_) return;
        self->deliver(
            {.kind = MessageEventKind::errorTerminationImminent, .pid = self->pid(), .description = kTerminationText});
    });
}

void SocketConnection::end() {
    if (over_) return;
    const std::shared_ptr<SocketConnection> self = shared_from_this();
    over_ = true;
    release();
    deliver({.kind = MessageEventKind::errorConnectionInvalid, .pid = peer_.pid, .description = kInvalidText});
    // Only now, off the handler's own stack: what it holds may be this connection.
    const MessageHandler dropped = std::exchange(handler_, nullptr);
    table_->remove(*this);
}

void SocketConnection::abandon() {
    over_ = true;
    release();
    const MessageHandler dropped = std::exchange(handler_, nullptr);
}

void SocketConnection::release() {
    socketWatch_.reset();
    processWatch_.reset();
    socket_.reset();
    peer_.process.reset();
    if (std::exchange(holdsPlace_, false)) table_->leave(peer_.user);
}

}  // namespace quorvix::linuxos
