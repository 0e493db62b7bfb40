#pragma once

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "platform/WorkQueue.h"

namespace quorvix::linuxos {

// A descriptor watched by a queue. Destruction stops the watch: no event is delivered any more, not even one that the
// kernel had already reported. Used and destroyed on the queue's thread, or while that thread does not run. It does
// not close the descriptor; destroy the watch first and close then, or the kernel keeps a registration that nobody can
// remove where the descriptor was duplicated.
class DescriptorWatch {
public:
    virtual ~DescriptorWatch() = default;
    // 0 pauses the watch: hang-ups and errors are not reported either.
    virtual void setEvents(std::uint32_t epollEvents) = 0;
};

// A serial queue with a thread of its own, which sleeps in epoll: an idle queue has no wake-ups.
//
// A turn takes the work that was posted when it began, then the timers that are due, then one round of the watched
// descriptors, each ready one once; so no source can starve another. Work of our own code is trusted and its number
// not bounded, but its high-water mark is kept. Made by LinuxQueueService, which starts and ends the thread; timers
// and watches are used on the queue's thread only, or while it does not run.
class LinuxWorkQueue final : public WorkQueue, public std::enable_shared_from_this<LinuxWorkQueue> {
public:
    struct Counters {
        std::uint64_t turns;
        std::uint64_t pendingHighWater;
    };

    LinuxWorkQueue(std::string_view label, QualityOfService quality);
    ~LinuxWorkQueue() override;
    LinuxWorkQueue(const LinuxWorkQueue&) = delete;
    LinuxWorkQueue& operator=(const LinuxWorkQueue&) = delete;

    // The Linux queue behind the interface. Precondition: it is one.
    static LinuxWorkQueue& from(WorkQueue& queue);

    void async(Work work) override;
    void asyncAfter(std::chrono::nanoseconds delay, Work work) override;
    void asyncAt(WallTime time, Work work) override;
    std::unique_ptr<RepeatingTimer> makeTimer(Work handler) override;
    const std::string& label() const override { return label_; }

    // Watches a descriptor, level-triggered: handler(epollEvents) runs on this queue, once a turn at most. The handler
    // may destroy any watch, its own included. nullptr with errno set when the kernel refuses the descriptor.
    std::unique_ptr<DescriptorWatch> watchDescriptor(int descriptor, std::uint32_t epollEvents,
                                                     std::function<void(std::uint32_t)> handler);
    // Whether the caller is this queue's own thread.
    bool onQueue() const noexcept;
    Counters counters() const;

private:
    friend class LinuxQueueService;
};

}  // namespace quorvix::linuxos
