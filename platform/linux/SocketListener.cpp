#include "platform/linux/SocketListener.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/syscall.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <utility>

#include "platform/linux/MessageEvents.h"

#ifndef SO_PEERPIDFD
#define SO_PEERPIDFD 77
#endif

namespace quorvix::linuxos {

namespace {

constexpr std::chrono::seconds kRest{1};
constexpr std::uint32_t kWatched = EPOLLIN | EPOLLRDHUP;

Descriptor openReserve() { return Descriptor(open("/dev/null", O_RDONLY | O_CLOEXEC)); }

bool outOfDescriptorsError(int error) { return error == EMFILE || error == ENFILE; }

// The peer's pidfd. Empty without an error: the peer is gone, or has no pid here.
Result<Descriptor> peerProcess(int socket, std::int32_t pid) {
    if (pid <= 0) return Descriptor();
    int descriptor = -1;
    socklen_t length = sizeof descriptor;
    if (getsockopt(socket, SOL_SOCKET, SO_PEERPIDFD, &descriptor, &length) == 0) return Descriptor(descriptor);
    if (errno == ESRCH) return Descriptor();
    if (outOfDescriptorsError(errno)) return ErrorCode{errno};
    // An older kernel: by number. Between connect() and here the number may have been reused, which is as near as such
    // a kernel lets us come.
    const auto opened = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    if (opened >= 0) return Descriptor(opened);
    if (errno == ESRCH) return Descriptor();
    return ErrorCode{errno};
}

Result<Peer> identify(int socket) {
    ucred credentials{};
    socklen_t length = sizeof credentials;
    if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) return ErrorCode{errno};
    // Each datagram then carries credentials, which tells an empty one from the end of file.
    const int on = 1;
    if (setsockopt(socket, SOL_SOCKET, SO_PASSCRED, &on, sizeof on) != 0) return ErrorCode{errno};
    Result<Descriptor> process = peerProcess(socket, credentials.pid);
    if (!process) return process.error();
    return Peer{credentials.pid, credentials.uid, std::move(*process)};
}

}  // namespace

SocketListener::SocketListener(std::shared_ptr<ConnectionTable> table, MappedRegions& regions, Descriptor socket,
                               std::shared_ptr<LinuxWorkQueue> queue)
    : table_(std::move(table)),
      regions_(regions),
      socket_(std::move(socket)),
      reserve_(openReserve()),
      queue_(std::move(queue)) {}

SocketListener::~SocketListener() { abandon(); }

void SocketListener::setEventHandler(MessageHandler handler) { handler_ = std::move(handler); }

void SocketListener::resume() {
    if (std::exchange(resumed_, true)) return;
    if (queue_->onQueue()) return start();
    queue_->async([self = shared_from_this()] { self->start(); });
}

void SocketListener::start() {
    if (!socket_) return;
    watch_ = queue_->watchDescriptor(socket_.get(), kWatched, [this](std::uint32_t events) { acceptOne(events); });
    if (!watch_) fail({errno});
}

void SocketListener::acceptOne(std::uint32_t events) {
    Descriptor accepted(accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (accepted) return welcome(std::move(accepted));
    switch (errno) {
        case EAGAIN:
            // A socket that was shut down is always ready and never has a caller: left alone, it would be asked for
            // ever.
            if ((events & ~std::uint32_t{EPOLLIN}) != 0) fail({ESHUTDOWN});
            return;
        case EINTR:
        case ECONNABORTED: return;
        case EMFILE:
        case ENFILE: return outOfDescriptors();
        case ENOBUFS:
        case ENOMEM: return rest();
        default: return fail({errno});
    }
}

void SocketListener::welcome(Descriptor socket) {
    Result<Peer> peer = identify(socket.get());
    if (!peer) {
        ++table_->counters().refusedNoDescriptor;
        return;
    }
    // Every end that is due comes before the new beginning: after it, the old connection's end would stop the watching
    // that the new one has started. The limits count after it too.
    for (const auto& earlier : table_->ofPid(peer->pid)) {
        if (&earlier->queue() == queue_.get()) earlier->finishIfGone();
    }
    if (!table_->admit(peer->user)) return;
    ++table_->counters().accepted;
    const std::int32_t pid = peer->pid;
    const std::string text = "<connection from pid " + std::to_string(pid) + ">";
    auto connection = std::make_shared<SocketConnection>(table_, regions_, std::move(socket), std::move(*peer), queue_);
    const ObjectId id = objectIdOf(connection.get());
    deliver({.kind = MessageEventKind::newConnection,
             .connection = std::move(connection),
             .pid = pid,
             .description = text,
             .id = id});
}

void SocketListener::outOfDescriptors() {
    ++table_->counters().refusedNoDescriptor;
    reserve_.reset();
    // Closed before the reserve is opened again: it has the reserve's place.
    Descriptor refused(accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    const bool worked = static_cast<bool>(refused);
    refused.reset();
    reserve_ = openReserve();
    if (!worked || !reserve_) rest();
}

void SocketListener::rest() {
    ++table_->counters().acceptPauses;
    watch_->setEvents(0);
    queue_->asyncAfter(kRest, [weak = weak_from_this()] {
        const std::shared_ptr<SocketListener> self = weak.lock();
        if (!self || !self->watch_) return;
        if (!self->reserve_) self->reserve_ = openReserve();
        self->watch_->setEvents(kWatched);
    });
}

void SocketListener::fail(ErrorCode error) {
    const std::shared_ptr<SocketListener> self = shared_from_this();
    table_->log().standard("message service: the listening socket failed: %@", error);
    watch_.reset();
    socket_.reset();
    deliver({.kind = MessageEventKind::errorConnectionInvalid, .pid = 0, .description = kInvalidText});
    const MessageHandler dropped = std::exchange(handler_, nullptr);
}

void SocketListener::deliver(MessageEvent event) {
    if (event.id.value == 0) event.id = objectIdOf(&event);
    event.typeId = typeIdOf(event.kind);
    if (handler_) handler_(event);
}

void SocketListener::abandon() {
    watch_.reset();
    socket_.reset();
    const MessageHandler dropped = std::exchange(handler_, nullptr);
}

}  // namespace quorvix::linuxos
