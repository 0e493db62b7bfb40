#include "platform/linux/MessageService.h"

#include <sys/socket.h>

#include <utility>

#include "platform/linux/SocketConnection.h"
#include "platform/linux/WorkQueue.h"

namespace quorvix::linuxos {

namespace {

// Every app may connect; who it is, the kernel tells.
constexpr mode_t kEndpointMode = 0666;

}  // namespace

LinuxMessageService::LinuxMessageService(SystemLog& log, ProcessLifecycle& lifecycle, MappedRegions& regions)
    : LinuxMessageService(log, lifecycle, regions, Options{}) {}

LinuxMessageService::LinuxMessageService(SystemLog& log, ProcessLifecycle& lifecycle, MappedRegions& regions,
                                         Options options)
    : log_(log, "com.norvane.quorvix", "platform"),
      lifecycle_(lifecycle),
      regions_(regions),
      options_(std::move(options)),
      passed_(PassedSockets::takeFromEnvironment()),
      table_(std::make_shared<ConnectionTable>(log, options_.limits)) {}

LinuxMessageService::~LinuxMessageService() {
    for (const auto& listener : listeners_) listener->abandon();
    // The handlers hold their connections and the table holds both: taken apart here.
    table_->clear();
}

std::shared_ptr<MessageListener> LinuxMessageService::makeListener(std::string_view endpoint,
                                                                   const std::shared_ptr<WorkQueue>& queue) {
    auto listener = std::make_shared<SocketListener>(table_, regions_, open(endpoint),
                                                     LinuxWorkQueue::from(*queue).shared_from_this());
    listeners_.push_back(listener);
    return listener;
}

Descriptor LinuxMessageService::open(std::string_view endpoint) {
    const std::string path = options_.runDirectory + "/" + std::string(endpoint);
    if (Descriptor passed = passed_.claim(endpoint, path)) {
        if (checkListening(passed.get(), SOCK_SEQPACKET)) return passed;
        log_.standard("message service: the socket passed for %@ is not a listening SOCK_SEQPACKET socket", endpoint);
        lifecycle_.exit(kNoEndpointStatus);
    }
    std::string failedStep;
    Result<Descriptor> bound = bindEndpoint(path, SOCK_SEQPACKET, kEndpointMode, failedStep);
    if (bound) return std::move(*bound);
    if (bound.error().value == EADDRINUSE) {
        log_.standard("message service: another process already listens on %@", path);
    } else {
        log_.standard("message service: can't %@ %@: %@", failedStep, path, bound.error());
    }
    lifecycle_.exit(kNoEndpointStatus);
    return {};  // Not reached; some sanitizers make the compiler forget that exit() does not return.
}

void LinuxMessageService::terminationImminent() {
    for (const auto& connection : table_->all()) connection->postTermination();
}

JsonObject LinuxMessageService::selfCounters() const { return table_->selfCounters(); }

}  // namespace quorvix::linuxos
