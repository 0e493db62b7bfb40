#include "platform/linux/QueueService.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <thread>
#include <utility>

#include "platform/Check.h"
#include "platform/linux/Lifecycle.h"

namespace quorvix::linuxos {

namespace {

constexpr std::chrono::seconds kProgressLimit{2};

sigset_t terminationSignal() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    return set;
}

// As the service manager and any shell expect it: by the signal, not by a status.
[[noreturn]] void endBySignal() {
    std::signal(SIGTERM, SIG_DFL);
    std::raise(SIGTERM);
    const sigset_t set = terminationSignal();
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
    std::abort();  // Not reached: the pending signal ended the process.
}

void takeSignal(int signals) {
    signalfd_siginfo information;
    [[maybe_unused]] const ssize_t size = ::read(signals, &information, sizeof information);
}

// Whether `done` was signalled before a second SIGTERM and before the time was over.
bool waitForProgress(int signals, int done) {
    const auto deadline = std::chrono::steady_clock::now() + kProgressLimit;
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return false;
        pollfd waits[] = {{signals, POLLIN, 0}, {done, POLLIN, 0}};
        const int count = ::poll(waits, 2, static_cast<int>(left.count()));
        if (count < 0 && errno != EINTR) return false;
        if (count > 0) return (waits[0].revents & POLLIN) == 0;
    }
}

}  // namespace

LinuxQueueService::LinuxQueueService(LinuxLifecycle* lifecycle) : lifecycle_(lifecycle) {
    const sigset_t set = terminationSignal();
    pthread_sigmask(SIG_BLOCK, &set, &maskBefore_);
}

LinuxQueueService::~LinuxQueueService() {
    for (const auto& queue : queues_) queue->stopThread();
    for (const auto& queue : queues_) queue->dropPending();
    pthread_sigmask(SIG_SETMASK, &maskBefore_, nullptr);
}

std::shared_ptr<WorkQueue> LinuxQueueService::makeSerialQueue(std::string_view label, QualityOfService quality) {
    auto queue = std::make_shared<LinuxWorkQueue>(label, quality);
    const std::lock_guard lock(mutex_);
    queues_.push_back(queue);
    if (started_) queue->startThread();
    return queue;
}

void LinuxQueueService::start() {
    const std::lock_guard lock(mutex_);
    started_ = true;
    for (const auto& queue : queues_) queue->startThread();
}

void LinuxQueueService::setTerminationHandler(std::shared_ptr<WorkQueue> queue, Work handler) {
    terminationQueue_ = std::move(queue);
    terminationHandler_ = std::move(handler);
}

void LinuxQueueService::runMain() {
    const sigset_t set = terminationSignal();
    const int signals = signalfd(-1, &set, SFD_CLOEXEC);
    const int handled = eventfd(0, EFD_CLOEXEC);
    const int flushed = eventfd(0, EFD_CLOEXEC);
    check(signals >= 0 && handled >= 0 && flushed >= 0, "the main thread has its descriptors");
    start();
    takeSignal(signals);
    if (terminationQueue_) {
        terminationQueue_->async([this, handled] {
            terminationHandler_();
            eventfd_write(handled, 1);
        });
        if (!waitForProgress(signals, handled)) endBySignal();
    }
    if (lifecycle_ != nullptr) {
        // Apart from this thread, which stays free for a second signal.
        std::thread([this, flushed] {
            lifecycle_->flush();
            eventfd_write(flushed, 1);
        }).detach();
        static_cast<void>(waitForProgress(signals, flushed));
    }
    endBySignal();
}

JsonObject LinuxQueueService::selfCounters() const {
    JsonObject counters;
    const std::lock_guard lock(mutex_);
    for (const auto& queue : queues_) {
        const LinuxWorkQueue::Counters of = queue->counters();
        counters.add(queue->label(), JsonObject{{"turns", of.turns},
                                                {"pendingHighWater", of.pendingHighWater},
                                                {"memoryGivenBack", of.memoryGivenBack}});
    }
    return counters;
}

}  // namespace quorvix::linuxos
