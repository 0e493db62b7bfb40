#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Services.h"
#include "platform/SystemLog.h"
#include "platform/linux/Descriptor.h"
#include "platform/linux/WorkQueue.h"

namespace quorvix::linuxos {

class StateSocket;

// The daemon's state on a socket of its own, "<runDirectory>/<endpoint>.state": whoever connects gets one JSON document
// and end of file. Root only (mode 0600, and the peer's user is looked at), and nothing is ever read from it.
//
// A reader that does not read is dropped after two seconds, and more than eight at a time are not served: no operator's
// script can hold the daemon. Without the socket the daemon runs on, with a line in its log. Lives on the queue that
// publish() is given; destruction (tests only) needs that queue's thread ended.
class LinuxStateService final : public StateService {
public:
    static constexpr std::uint32_t kMostReaders = 8;

    explicit LinuxStateService(SystemLog& log, std::string runDirectory = "/run/vex");
    ~LinuxStateService() override;

    void publish(std::string_view endpoint, const std::shared_ptr<WorkQueue>& queue,
                 std::function<JsonObject()> provider) override;
    JsonObject selfCounters() const;

private:
    LogHandle log_;
    const std::string runDirectory_;
    std::vector<std::shared_ptr<StateSocket>> sockets_;
};

}  // namespace quorvix::linuxos
