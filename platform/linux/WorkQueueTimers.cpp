#include <sys/timerfd.h>

#include <algorithm>
#include <ctime>
#include <utility>

#include "platform/Check.h"
#include "platform/TimerRules.h"
#include "platform/linux/WorkQueue.h"

// What waits for a moment: repeating timers, and one-shots on both clocks.

namespace quorvix::linuxos {

namespace {

using Nanoseconds = std::chrono::nanoseconds;

Nanoseconds now(clockid_t clock) {
    timespec time{};
    clock_gettime(clock, &time);
    return std::chrono::seconds(time.tv_sec) + Nanoseconds(time.tv_nsec);
}

// 0 is a moment that the kernel takes for "disarm", so that a moment in the past becomes the first nanosecond.
itimerspec absolute(Nanoseconds moment) {
    const Nanoseconds at = std::max(moment, Nanoseconds{1});
    itimerspec timerValue{};
    timerValue.it_value.tv_sec = static_cast<time_t>(at.count() / 1'000'000'000);
    timerValue.it_value.tv_nsec = static_cast<long>(at.count() % 1'000'000'000);
    return timerValue;
}

// A heap whose front is the earliest.
constexpr auto kLater = [](const auto& left, const auto& right) {
    return std::pair(left.due, left.sequence) > std::pair(right.due, right.sequence);
};

}  // namespace

struct LinuxWorkQueue::TimerState {
    Work handler;
    TimerSchedule schedule{};
    Nanoseconds due{0};
    // New with every scheduling: a firing that was collected before is void.
    std::uint64_t sequence = 0;
    bool scheduled = false;
    bool started = false;

    bool armed() const { return scheduled && started; }
    bool dueAt(Nanoseconds moment) const { return armed() && due <= moment; }
    Nanoseconds latest() const { return timer::saturatingAdd(due, schedule.leeway); }
};

// Keeps the queue alive, so that a timer that goes late in a shutdown finds its list.
class LinuxWorkQueue::Timer final : public RepeatingTimer {
public:
    Timer(std::shared_ptr<LinuxWorkQueue> queue, std::shared_ptr<TimerState> state)
        : queue_(std::move(queue)), state_(std::move(state)) {}
    ~Timer() override {
        check(queue_->mayUseSources(), "a timer is destroyed on its queue");
        state_->scheduled = false;
        std::erase(queue_->timers_, state_);
    }
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;

    void schedule(const TimerSchedule& schedule) override {
        check(queue_->mayUseSources(), "a timer is scheduled on its queue");
        state_->schedule = timer::normalised(schedule);
        state_->due = timer::saturatingAdd(now(CLOCK_MONOTONIC), state_->schedule.firstDelay);
        state_->scheduled = true;
        const std::lock_guard lock(queue_->mutex_);
        state_->sequence = queue_->nextSequence_++;
    }
    void start() override {
        check(queue_->mayUseSources(), "a timer is started on its queue");
        state_->started = true;
    }

private:
    std::shared_ptr<LinuxWorkQueue> queue_;
    std::shared_ptr<TimerState> state_;
};

void LinuxWorkQueue::asyncAfter(Nanoseconds delay, Work work) {
    if (delay.count() <= 0) return async(std::move(work));
    addOneShot(addedMonotonic_, timer::saturatingAdd(now(CLOCK_MONOTONIC), delay), std::move(work));
}

void LinuxWorkQueue::asyncAt(WallTime time, Work work) {
    if (time.time_since_epoch() <= now(CLOCK_REALTIME)) return async(std::move(work));
    addOneShot(addedWall_, time.time_since_epoch(), std::move(work));
}

void LinuxWorkQueue::addOneShot(std::vector<OneShot>& added, Nanoseconds due, Work work) {
    const std::lock_guard lock(mutex_);
    added.push_back({due, nextSequence_++, std::move(work)});
    wakeLocked();  // It has to be armed for.
}

void LinuxWorkQueue::absorb(std::vector<OneShot>& added, std::vector<OneShot>& oneShots) {
    for (OneShot& oneShot : added) {
        oneShots.push_back(std::move(oneShot));
        std::push_heap(oneShots.begin(), oneShots.end(), kLater);
    }
    added.clear();
}

std::unique_ptr<RepeatingTimer> LinuxWorkQueue::makeTimer(Work handler) {
    check(mayUseSources(), "a timer is made on its queue");
    auto state = std::make_shared<TimerState>();
    state->handler = std::move(handler);
    timers_.push_back(state);
    return std::make_unique<Timer>(shared_from_this(), std::move(state));
}

void LinuxWorkQueue::takeDue(std::vector<OneShot>& oneShots, Nanoseconds moment) {
    while (!oneShots.empty() && oneShots.front().due <= moment) {
        std::pop_heap(oneShots.begin(), oneShots.end(), kLater);
        OneShot& due = oneShots.back();
        firing_.push_back({due.due, due.sequence, std::move(due.work), nullptr});
        oneShots.pop_back();
    }
}

void LinuxWorkQueue::fireMonotonic() {
    if (timers_.empty() && monotonicOneShots_.empty()) return;
    const Nanoseconds moment = now(CLOCK_MONOTONIC);
    takeDue(monotonicOneShots_, moment);
    for (const auto& state : timers_) {
        if (state->dueAt(moment)) firing_.push_back({state->due, state->sequence, nullptr, state});
    }
    std::sort(firing_.begin(), firing_.end(),
              [](const Firing& left, const Firing& right) { return kLater(right, left); });
    for (Firing& entry : firing_) {
        // Each lets go of what it holds before the next runs.
        const Firing firing = std::exchange(entry, {});
        if (!firing.timer) {
            firing.work();
        } else if (firing.timer->dueAt(moment) && firing.timer->sequence == firing.sequence) {
            fireTimer(*firing.timer, moment);
        }
    }
    firing_.clear();
}

void LinuxWorkQueue::fireTimer(TimerState& state, Nanoseconds moment) {
    // A wake-up that was not armed for this timer counts as it came.
    Nanoseconds planned = moment;
    if (monotonicArmed_ && *monotonicArmed_ <= moment) planned = std::max(state.due, *monotonicArmed_);
    state.due = timer::nextDue(state.schedule, state.due, planned, moment);
    state.handler();
}

void LinuxWorkQueue::fireWall() {
    if (wallOneShots_.empty()) return;
    takeDue(wallOneShots_, now(CLOCK_REALTIME));
    for (Firing& entry : firing_) {
        const Work work = std::exchange(entry.work, nullptr);
        work();
    }
    firing_.clear();
}

// The moment of the next wake-up: late enough for as many timers as their leeways allow, and not too late for any.
std::optional<Nanoseconds> LinuxWorkQueue::nextWakeUp() const {
    std::optional<Nanoseconds> latest;
    for (const auto& state : timers_) {
        if (state->armed() && (!latest || state->latest() < *latest)) latest = state->latest();
    }
    std::optional<Nanoseconds> moment;
    if (latest) {
        Nanoseconds earliest{0};
        for (const auto& state : timers_) {
            if (state->dueAt(*latest)) earliest = std::max(earliest, state->due);
        }
        moment = timer::roundestMoment(earliest, *latest);
    }
    // One-shots are exact, and give timers that are due by then a ride.
    if (!monotonicOneShots_.empty() && (!moment || monotonicOneShots_.front().due < *moment)) {
        moment = monotonicOneShots_.front().due;
    }
    return moment;
}

void LinuxWorkQueue::armMonotonic() {
    const std::optional<Nanoseconds> moment = nextWakeUp();
    if (moment == monotonicArmed_) return;
    const itimerspec timerValue = moment ? absolute(*moment) : itimerspec{};
    timerfd_settime(monotonicTimer_, TFD_TIMER_ABSTIME, &timerValue, nullptr);
    monotonicArmed_ = moment;
}

void LinuxWorkQueue::armWall() {
    std::optional<Nanoseconds> moment;
    if (!wallOneShots_.empty()) moment = wallOneShots_.front().due;
    if (moment == wallArmed_) return;
    const itimerspec timerValue = moment ? absolute(*moment) : itimerspec{};
    // ECANCELED tells that the clock was set meanwhile; the timer is armed all the same, against the new time.
    timerfd_settime(wallTimer_, TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET, &timerValue, nullptr);
    wallArmed_ = moment;
}

}  // namespace quorvix::linuxos
