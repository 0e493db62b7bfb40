#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "platform/MessageService.h"
#include "platform/linux/ConnectionTable.h"
#include "platform/linux/Descriptor.h"
#include "platform/linux/SharedMemory.h"
#include "platform/linux/SocketConnection.h"
#include "platform/linux/WorkQueue.h"

namespace quorvix::linuxos {

// The listening socket of an endpoint. Accepts one connection a round of its queue, finds out who it is, and hands it
// to the handler, after the pending end of any earlier connection of the same pid on the same queue.
//
// Lives on its queue once resumed; owned by whoever made it and by the message service. Without descriptors left it
// takes callers from the backlog and closes them, or rests for a second where not even that works; it never spins.
class SocketListener final : public MessageListener, public std::enable_shared_from_this<SocketListener> {
public:
    SocketListener(std::shared_ptr<ConnectionTable> table, MappedRegions& regions, Descriptor socket,
                   std::shared_ptr<LinuxWorkQueue> queue);
    ~SocketListener() override;

    void setEventHandler(MessageHandler handler) override;
    void resume() override;
    // Ends without an event; when the service goes.
    void abandon();

private:
    void start();
    void acceptOne(std::uint32_t events);
    void welcome(Descriptor socket);
    void outOfDescriptors();
    void rest();
    void fail(ErrorCode error);
    void deliver(MessageEvent event);

    std::shared_ptr<ConnectionTable> table_;
    MappedRegions& regions_;
    Descriptor socket_;
    // Given up for a moment when there is no other descriptor, so that a caller can be taken from the backlog and
    // closed.
    Descriptor reserve_;
    std::shared_ptr<LinuxWorkQueue> queue_;
    MessageHandler handler_;
    std::unique_ptr<DescriptorWatch> watch_;
    bool resumed_ = false;
};

}  // namespace quorvix::linuxos
