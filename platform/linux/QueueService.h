#pragma once

#include <csignal>
#include <memory>
#include <mutex>
#include <string_view>
#include <vector>

#include "platform/Json.h"
#include "platform/WorkQueue.h"
#include "platform/linux/WorkQueue.h"

namespace quorvix::linuxos {

class LinuxLifecycle;

// Makes the daemon's queues and takes the main thread, which then does nothing but wait for the request to terminate.
//
// The constructor blocks SIGTERM, so it must run before any other thread exists. Destruction (tests only; the daemon
// ends without it) ends all threads and drops what is still pending; it must not run on one of the queues.
class LinuxQueueService final : public QueueService {
public:
    // `lifecycle` flushes the stores when the process is asked to terminate; it outlives the service.
    explicit LinuxQueueService(LinuxLifecycle* lifecycle = nullptr);
    ~LinuxQueueService() override;
    LinuxQueueService(const LinuxQueueService&) = delete;
    LinuxQueueService& operator=(const LinuxQueueService&) = delete;

    // The queue lives at least as long as the service. Always a LinuxWorkQueue. Callable from any thread.
    std::shared_ptr<WorkQueue> makeSerialQueue(std::string_view label, QualityOfService quality) override;
    // Starts the queues' threads, then waits. On SIGTERM: the termination handler on its queue, the stores' flush,
    // and the process ends by that signal. A second SIGTERM, or two seconds without progress, ends it at once.
    [[noreturn]] void runMain() override;
    // The part of runMain that starts the threads, for tests that keep their main thread.
    void start();

    // What runs on `queue` when the process is asked to terminate. Set before runMain.
    void setTerminationHandler(std::shared_ptr<WorkQueue> queue, Work handler);
    // One object a queue, by label: turns taken, and the most work that ever waited.
    JsonObject selfCounters() const;

private:
    LinuxLifecycle* lifecycle_;
    sigset_t maskBefore_;
    std::shared_ptr<WorkQueue> terminationQueue_;
    Work terminationHandler_;

    mutable std::mutex mutex_;
    std::vector<std::shared_ptr<LinuxWorkQueue>> queues_;
    bool started_ = false;
};

}  // namespace quorvix::linuxos
