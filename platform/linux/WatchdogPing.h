#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>

#include "platform/WorkQueue.h"

namespace quorvix::linuxos {

// Tells the service manager again and again that a queue takes its turns. The ping is a timer of that queue, between
// turns like any other work: a queue that is stuck in one, or that never comes to its timers, says nothing.
//
// Three pings fit into the manager's limit, each with a leeway of a quarter of it, so that an idle daemon wakes up for
// other reasons mostly. Made and destroyed on the queue, or while it does not run.
class WatchdogPing {
public:
    // limit: how long the manager waits for a ping; positive.
    WatchdogPing(WorkQueue& queue, std::chrono::microseconds limit, Work ping);

    // What the service manager asks of this process; nothing where it asks nothing, or asks another process.
    static std::optional<std::chrono::microseconds> limitFromEnvironment();

private:
    std::unique_ptr<RepeatingTimer> timer_;
};

}  // namespace quorvix::linuxos
