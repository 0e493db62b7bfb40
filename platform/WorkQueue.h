#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "platform/Time.h"

namespace quorvix {

enum class QualityOfService { userInteractive, userInitiated, standard, utility, background };

using Work = std::function<void()>;

struct TimerSchedule {
    std::chrono::nanoseconds firstDelay;
    std::chrono::nanoseconds interval;
    // The timer may fire up to this much late, so that wake-ups coalesce; it never repeats faster than this either.
    std::chrono::nanoseconds leeway;
};

// A repeating timer on the monotonic clock. Destruction cancels it: the handler does not run again, also when a
// firing was already queued. Used on its queue only (or before the main thread was given away).
class RepeatingTimer {
public:
    virtual ~RepeatingTimer() = default;
    // (Re)arms the timer from now. Before start() it only stores the schedule's due time.
    virtual void schedule(const TimerSchedule& schedule) = 0;
    // Lets the timer fire. Calling it again does nothing.
    virtual void start() = 0;
};

// A serial work queue: strictly first in, first out, one piece of work at a time. async* is callable from any thread.
// Nothing is delivered before the main thread was given away (QueueService::runMain): until then work, events and
// timers pile up.
class WorkQueue {
public:
    virtual ~WorkQueue() = default;
    virtual void async(Work work) = 0;
    // Runs once, `delay` from now on the monotonic clock.
    virtual void asyncAfter(std::chrono::nanoseconds delay, Work work) = 0;
    // Runs once, when the wall clock reaches `time`; follows steps of the wall clock in both directions.
    virtual void asyncAt(WallTime time, Work work) = 0;
    // The timer fires on this queue and must not outlive it.
    virtual std::unique_ptr<RepeatingTimer> makeTimer(Work handler) = 0;
    virtual const std::string& label() const = 0;
};

class QueueService {
public:
    virtual ~QueueService() = default;
    virtual std::shared_ptr<WorkQueue> makeSerialQueue(std::string_view label, QualityOfService quality) = 0;
    // Gives the calling (main) thread to the queues for good.
    [[noreturn]] virtual void runMain() = 0;
};

}  // namespace quorvix
