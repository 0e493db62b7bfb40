#include <sys/epoll.h>

#include <cerrno>
#include <utility>

#include "platform/Check.h"
#include "platform/linux/WorkQueue.h"
#include "platform/linux/WorkQueueTags.h"

// The descriptors that a queue watches.

namespace quorvix::linuxos {

namespace {

// A pause keeps the entry, so that resuming needs no memory and cannot fail. An entry without events still reports
// hang-ups, again and again; edge-triggered it does so once, and that once is dropped in dispatchWatch.
std::uint32_t kernelEvents(std::uint32_t events) { return events == 0 ? std::uint32_t{EPOLLET} : events; }

}  // namespace

struct LinuxWorkQueue::WatchState {
    int descriptor;
    std::uint32_t events;
    std::uint32_t slot;
    std::uint32_t generation;
    std::function<void(std::uint32_t)> handler;

    // False where the kernel refuses.
    bool control(int epoll, int operation) const {
        epoll_event event{};
        event.events = kernelEvents(events);
        event.data.u64 = tag::ofWatch(slot, generation);
        return epoll_ctl(epoll, operation, descriptor, &event) == 0;
    }
};

class LinuxWorkQueue::Watch final : public DescriptorWatch {
public:
    Watch(std::shared_ptr<LinuxWorkQueue> queue, std::shared_ptr<WatchState> state)
        : queue_(std::move(queue)), state_(std::move(state)) {}
    ~Watch() override {
        check(queue_->mayUseSources(), "a watch is destroyed on its queue");
        // Fails only when the owner closed the descriptor first, and then there is nothing left to take out.
        static_cast<void>(state_->control(queue_->epoll_, EPOLL_CTL_DEL));
        queue_->releaseSlot(state_->slot);
    }
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;

    void setEvents(std::uint32_t epollEvents) override {
        check(queue_->mayUseSources(), "a watch is used on its queue");
        if (epollEvents == state_->events) return;
        state_->events = epollEvents;
        // Ignored for the same reason.
        static_cast<void>(state_->control(queue_->epoll_, EPOLL_CTL_MOD));
    }

private:
    std::shared_ptr<LinuxWorkQueue> queue_;
    std::shared_ptr<WatchState> state_;
};

std::unique_ptr<DescriptorWatch> LinuxWorkQueue::watchDescriptor(int descriptor, std::uint32_t epollEvents,
                                                                 std::function<void(std::uint32_t)> handler) {
    check(mayUseSources(), "a watch is made on its queue");
    if (freeSlots_.empty()) {
        freeSlots_.push_back(static_cast<std::uint32_t>(slots_.size()));
        slots_.emplace_back();
    }
    const std::uint32_t slot = freeSlots_.back();
    auto state = std::make_shared<WatchState>(
        WatchState{descriptor, epollEvents, slot, slots_[slot].generation, std::move(handler)});
    if (!state->control(epoll_, EPOLL_CTL_ADD)) return nullptr;
    freeSlots_.pop_back();
    slots_[slot].watch = state;
    return std::make_unique<Watch>(shared_from_this(), std::move(state));
}

void LinuxWorkQueue::releaseSlot(std::uint32_t index) {
    Slot& slot = slots_[index];
    slot.watch.reset();
    slot.generation = slot.generation == tag::kLastGeneration ? 0 : slot.generation + 1;
    freeSlots_.push_back(index);
}

void LinuxWorkQueue::dispatchWatch(std::uint64_t data, std::uint32_t events) {
    const std::uint32_t slot = tag::slotOf(data);
    if (slot >= slots_.size() || slots_[slot].generation != tag::generationOf(data)) return;
    // The handler may destroy its own watch, or make new ones that move the slots.
    const std::shared_ptr<WatchState> watch = slots_[slot].watch;
    if (!watch || watch->events == 0) return;  // Gone or paused since the kernel reported it.
    if (const std::uint32_t wanted = events & (watch->events | EPOLLERR | EPOLLHUP)) watch->handler(wanted);
}

}  // namespace quorvix::linuxos
