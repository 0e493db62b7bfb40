#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <cstdint>
#include <memory>

#include "platform/MessageService.h"
#include "platform/linux/ConnectionTable.h"
#include "platform/linux/Descriptor.h"
#include "platform/linux/SharedMemory.h"
#include "platform/linux/WorkQueue.h"

namespace quorvix::linuxos {

// Who is at the other end, as the kernel told when the connection was accepted.
struct Peer {
    std::int32_t pid = 0;
    uid_t user = 0;
    // Refers to the process itself, so that a reused pid is never mistaken for it. Empty: it is gone already, or it has
    // no pid here (another pid namespace).
    Descriptor process;
};

// One accepted connection: a socket and its peer's pidfd, both watched on the target queue.
//
// One datagram is received a round of the queue, so that no client is read twice before the others were read once.
// The peer's death ends the connection even where a child inherited the socket; what the peer had sent before is
// delivered first. Lives on its target queue once resumed; owned by the connection table from then on.
class SocketConnection final : public MessageConnection, public std::enable_shared_from_this<SocketConnection> {
public:
    // The place in the table was taken already, and is given back when the connection ends.
    SocketConnection(std::shared_ptr<ConnectionTable> table, MappedRegions& regions, Descriptor socket, Peer peer,
                     std::shared_ptr<LinuxWorkQueue> queue);
    ~SocketConnection() override;

    std::int32_t pid() const override { return peer_.pid; }
    void setTargetQueue(const std::shared_ptr<WorkQueue>& queue) override;
    void setEventHandler(MessageHandler handler) override;
    void resume() override;

    const LinuxWorkQueue& queue() const { return *queue_; }
    // Where the peer is gone: delivers what it had sent and the invalid event, before this returns. On the target
    // queue.
    void finishIfGone();
    // Posts errorTerminationImminent. From any thread.
    void postTermination();
    // Ends without an event; when the service goes.
    void abandon();

private:
    enum class Reading { delivered, nothing, failed, ended };

    void start();
    void socketReady();
    void peerDied();
    void drainOne();
    Reading readOne();
    void deliverDatagram(std::span<const std::uint8_t> datagram, const msghdr& header);
    void deliver(MessageEvent event);
    void end();
    void release();

    std::shared_ptr<ConnectionTable> table_;
    MappedRegions& regions_;
    Descriptor socket_;
    Peer peer_;
    std::shared_ptr<LinuxWorkQueue> queue_;
    std::shared_ptr<ReceiveBuffer> buffer_;
    MessageHandler handler_;
    std::unique_ptr<DescriptorWatch> socketWatch_;
    std::unique_ptr<DescriptorWatch> processWatch_;
    std::uint32_t datagramsLeft_;
    std::uint32_t failuresInARow_ = 0;
    bool resumed_ = false;
    bool started_ = false;
    bool over_ = false;
    bool holdsPlace_ = true;
};

}  // namespace quorvix::linuxos
