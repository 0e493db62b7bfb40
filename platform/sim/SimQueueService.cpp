#include "platform/sim/SimQueueService.h"

#include <optional>
#include <utility>

#include "platform/TimerRules.h"

namespace quorvix::sim {

namespace {

using Nanoseconds = std::chrono::nanoseconds;

// A timer's state outlives its object while its handler runs, or while a firing that was already queued waits to find
// out that it was cancelled.
class TimerState : public std::enable_shared_from_this<TimerState> {
public:
    TimerState(SimScheduler& scheduler, Work handler) : scheduler_(scheduler), handler_(std::move(handler)) {}

    void schedule(const TimerSchedule& schedule) {
        disarm();
        schedule_ = timer::normalised(schedule);
        due_ = timer::saturatingAdd(scheduler_.monotonicNow(), schedule_.firstDelay);
        scheduled_ = true;
        arm();
    }
    void start() {
        if (started_) return;
        started_ = true;
        arm();
    }
    void cancel() {
        disarm();
        scheduled_ = false;
        // The handler lets go of what it holds at once, unless it is what cancels.
        if (!running_) handler_ = nullptr;
    }

private:
    struct Armed {
        Nanoseconds moment;
        SimScheduler::EventId event;
    };

    void arm() {
        if (!started_ || !scheduled_) return;
        const Nanoseconds moment = timer::saturatingAdd(due_, scheduler_.leewayUsed(due_, schedule_.leeway));
        const std::uint64_t generation = ++generation_;
        armed_ = {moment, scheduler_.addMonotonic(moment, [self = shared_from_this(), generation, moment] {
                      self->fire(generation, moment);
                  })};
    }
    void disarm() {
        ++generation_;
        // Taking the event back may drop the last reference but the owner's.
        if (const auto armed = std::exchange(armed_, std::nullopt)) {
            scheduler_.cancelMonotonic(armed->moment, armed->event);
        }
    }
    void fire(std::uint64_t generation, Nanoseconds planned) {
        if (generation != generation_) return;  // Cancelled or scheduled anew since the firing was queued.
        armed_.reset();
        due_ = timer::nextDue(schedule_, due_, planned, scheduler_.monotonicNow());
        arm();
        running_ = true;
        handler_();
        running_ = false;
        if (!scheduled_) handler_ = nullptr;
    }

    SimScheduler& scheduler_;
    Work handler_;
    TimerSchedule schedule_{};
    Nanoseconds due_{0};
    std::optional<Armed> armed_;
    std::uint64_t generation_ = 0;
    bool scheduled_ = false;
    bool started_ = false;
    bool running_ = false;
};

class SimTimer final : public RepeatingTimer {
public:
    SimTimer(SimScheduler& scheduler, Work handler)
        : state_(std::make_shared<TimerState>(scheduler, std::move(handler))) {}
    ~SimTimer() override { state_->cancel(); }
    SimTimer(const SimTimer&) = delete;
    SimTimer& operator=(const SimTimer&) = delete;

    void schedule(const TimerSchedule& schedule) override { state_->schedule(schedule); }
    void start() override { state_->start(); }

private:
    std::shared_ptr<TimerState> state_;
};

}  // namespace

SimWorkQueue::SimWorkQueue(SimScheduler& scheduler, std::string_view label, QualityOfService quality)
    : scheduler_(scheduler), label_(label), quality_(quality) {}

void SimWorkQueue::async(Work work) { scheduler_.post(std::move(work)); }

void SimWorkQueue::asyncAfter(Nanoseconds delay, Work work) {
    if (delay.count() <= 0) return async(std::move(work));
    scheduler_.addMonotonic(timer::saturatingAdd(scheduler_.monotonicNow(), delay), std::move(work));
}

void SimWorkQueue::asyncAt(WallTime time, Work work) {
    if (time <= scheduler_.wallNow()) return async(std::move(work));
    scheduler_.addWall(time, std::move(work));
}

std::unique_ptr<RepeatingTimer> SimWorkQueue::makeTimer(Work handler) {
    return std::make_unique<SimTimer>(scheduler_, std::move(handler));
}

std::shared_ptr<WorkQueue> SimQueueService::makeSerialQueue(std::string_view label, QualityOfService quality) {
    return queues_.emplace_back(std::make_shared<SimWorkQueue>(scheduler_, label, quality));
}

void SimQueueService::runMain() {
    scheduler_.giveMainThread();
    throw MainThreadGiven{};
}

std::shared_ptr<SimWorkQueue> SimQueueService::find(std::string_view label) const {
    for (const auto& queue : queues_) {
        if (queue->label() == label) return queue;
    }
    return nullptr;
}

}  // namespace quorvix::sim
