#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Json.h"
#include "platform/MessageService.h"
#include "platform/Services.h"
#include "platform/SystemLog.h"
#include "platform/linux/ConnectionTable.h"
#include "platform/linux/EndpointSocket.h"
#include "platform/linux/SharedMemory.h"
#include "platform/linux/SocketListener.h"

namespace quorvix::linuxos {

// The message service on Unix sockets: an endpoint is a SOCK_SEQPACKET socket in the run directory, a datagram a
// dictionary (docs/message-protocol.md). The daemon only listens; it never sends.
//
// Made on the main thread before any other exists, since it takes what the service manager passed in the environment;
// outlives its listeners' and connections' use. All queues given to it are LinuxWorkQueues. Destruction (tests only)
// needs the queues' threads ended.
class LinuxMessageService final : public MessageService {
public:
    // What the process ends with where an endpoint cannot be had (EX_OSERR).
    static constexpr int kNoEndpointStatus = 71;

    struct Options {
        std::string runDirectory = "/run/vex";
        ConnectionTable::Limits limits = {};
    };

    LinuxMessageService(SystemLog& log, ProcessLifecycle& lifecycle, MappedRegions& regions);
    LinuxMessageService(SystemLog& log, ProcessLifecycle& lifecycle, MappedRegions& regions, Options options);
    ~LinuxMessageService() override;

    std::shared_ptr<MessageListener> makeListener(std::string_view endpoint,
                                                  const std::shared_ptr<WorkQueue>& queue) override;

    // Posts errorTerminationImminent to every resumed connection. From any thread; work posted to a connection's queue
    // after it runs after the connection's handler.
    void terminationImminent();

    JsonObject selfCounters() const;

private:
    Descriptor open(std::string_view endpoint);

    LogHandle log_;
    ProcessLifecycle& lifecycle_;
    MappedRegions& regions_;
    const Options options_;
    PassedSockets passed_;
    std::shared_ptr<ConnectionTable> table_;
    std::vector<std::shared_ptr<SocketListener>> listeners_;
};

}  // namespace quorvix::linuxos
