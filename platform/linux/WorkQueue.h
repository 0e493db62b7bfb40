#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
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
// not bounded, but its high-water mark is kept. When its last delayed work is done and it goes to sleep, memory that
// was freed goes back to the kernel: the allocator keeps by itself what a burst took, as long as the process lives.
// Made by LinuxQueueService, which starts and ends the thread; timers and watches are used on the queue's thread only,
// or while it does not run.
class LinuxWorkQueue final : public WorkQueue, public std::enable_shared_from_this<LinuxWorkQueue> {
public:
    struct Counters {
        std::uint64_t turns;
        std::uint64_t pendingHighWater;
        std::uint64_t memoryGivenBack;  // how often
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
    // Whether the caller may make watches and timers: it is the queue's own thread, or there is none yet.
    bool mayUseSources() const noexcept;
    Counters counters() const;

private:
    friend class LinuxQueueService;
    class Timer;
    class Watch;
    struct TimerState;
    struct WatchState;
    // Work that waits for a moment; `due` is nanoseconds of the clock that its list belongs to.
    struct OneShot {
        std::chrono::nanoseconds due;
        std::uint64_t sequence;
        Work work;
    };
    // A due one-shot or, where `timer` is set, a due timer.
    struct Firing {
        std::chrono::nanoseconds due;
        std::uint64_t sequence;
        Work work;
        std::shared_ptr<TimerState> timer;
    };
    struct Slot {
        std::uint32_t generation = 0;
        std::shared_ptr<WatchState> watch;
    };

    // The service's part.
    void startThread();
    void stopThread();
    void dropPending();

    void run();
    void runPosted();
    void fireMonotonic();
    void fireWall();
    void fireTimer(TimerState& timer, std::chrono::nanoseconds now);
    void armMonotonic();
    void armWall();
    std::optional<std::chrono::nanoseconds> nextWakeUp() const;
    void waitForEvents();
    void giveMemoryBackAfterTheLastDelayed();
    void dispatchEvent(std::uint64_t data, std::uint32_t events);
    void dispatchWatch(std::uint64_t data, std::uint32_t events);
    void releaseSlot(std::uint32_t index);
    void addOneShot(std::vector<OneShot>& added, std::chrono::nanoseconds due, Work work);
    // Moves what was added to the thread's own list.
    static void absorb(std::vector<OneShot>& added, std::vector<OneShot>& oneShots);
    // Takes all that is due at `now` from a list to firing_.
    void takeDue(std::vector<OneShot>& oneShots, std::chrono::nanoseconds now);
    void wakeLocked();

    const std::string label_;
    const QualityOfService quality_;
    int epoll_ = -1;
    int wakeUp_ = -1;
    int monotonicTimer_ = -1;
    int wallTimer_ = -1;
    std::thread thread_;
    std::atomic<std::thread::id> threadId_{};

    mutable std::mutex mutex_;
    // Guarded by mutex_: what other threads hand over, taken once a turn.
    std::vector<Work> posted_;
    std::vector<OneShot> addedMonotonic_;
    std::vector<OneShot> addedWall_;
    std::uint64_t nextSequence_ = 1;
    std::uint64_t pendingHighWater_ = 0;
    bool asleep_ = false;
    bool stopping_ = false;

    // The thread's own, or everybody's while it does not run.
    std::vector<Work> batch_;
    // Heaps, the earliest first.
    std::vector<OneShot> monotonicOneShots_;
    std::vector<OneShot> wallOneShots_;
    std::vector<Firing> firing_;
    std::vector<std::shared_ptr<TimerState>> timers_;
    std::vector<Slot> slots_;
    std::vector<std::uint32_t> freeSlots_;
    std::optional<std::chrono::nanoseconds> monotonicArmed_;
    std::optional<std::chrono::nanoseconds> wallArmed_;
    bool hadDelayed_ = false;  // since memory was given back
    std::atomic<std::uint64_t> turns_{0};
    std::atomic<std::uint64_t> memoryGivenBack_{0};
};

}  // namespace quorvix::linuxos
