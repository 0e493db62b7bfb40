#include "platform/linux/StateService.h"

#include <sys/socket.h>

#include <utility>

#include "platform/linux/EndpointSocket.h"
#include "platform/linux/StateSocket.h"

namespace quorvix::linuxos {

namespace {

constexpr mode_t kStateMode = 0600;

}  // namespace

LinuxStateService::LinuxStateService(SystemLog& log, std::string runDirectory)
    : log_(log, "com.norvane.quorvix", "platform"), runDirectory_(std::move(runDirectory)) {}

LinuxStateService::~LinuxStateService() {
    for (const auto& socket : sockets_) socket->abandon();
}

void LinuxStateService::publish(std::string_view endpoint, const std::shared_ptr<WorkQueue>& queue,
                                std::function<JsonObject()> provider) {
    const std::string path = runDirectory_ + "/" + std::string(endpoint) + ".state";
    std::string failedStep;
    Result<Descriptor> bound = bindEndpoint(path, SOCK_STREAM, kStateMode, failedStep);
    if (!bound) {
        log_.standard("state socket: can't %@ %@: %@", failedStep, path, bound.error());
        return;
    }
    auto socket = std::make_shared<StateSocket>(std::move(*bound), LinuxWorkQueue::from(*queue).shared_from_this(),
                                                std::move(provider));
    socket->resume();
    sockets_.push_back(std::move(socket));
}

JsonObject LinuxStateService::selfCounters() const {
    std::uint64_t served = 0;
    std::uint64_t refusedFull = 0;
    std::uint64_t refusedUser = 0;
    std::uint64_t droppedSlow = 0;
    for (const auto& socket : sockets_) {
        served += socket->counters().served;
        refusedFull += socket->counters().refusedFull;
        refusedUser += socket->counters().refusedUser;
        droppedSlow += socket->counters().droppedSlow;
    }
    return {
        {"served", served}, {"refusedFull", refusedFull}, {"refusedUser", refusedUser}, {"droppedSlow", droppedSlow}};
}

}  // namespace quorvix::linuxos
