#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/WorkQueue.h"
#include "platform/linux/QueueService.h"
#include "platform/sim/SimQueueService.h"

// What every work queue keeps, in real and in virtual time. Real time only ever bounds from below: work may come as
// late as a busy machine makes it, but never early, never too often and never in another order.

namespace quorvix::work_queue_contract {
namespace {

using namespace std::chrono_literals;
using std::chrono::nanoseconds;

constexpr nanoseconds kPatience = 30s;

struct LinuxWorld {
    std::unique_ptr<linuxos::LinuxQueueService> service = std::make_unique<linuxos::LinuxQueueService>();

    std::shared_ptr<WorkQueue> makeQueue(std::string_view label) {
        return service->makeSerialQueue(label, QualityOfService::standard);
    }
    void start() { service->start(); }
    void stop() { service.reset(); }
    // Some time passes, and what was due before that is done.
    void pass(nanoseconds duration) { std::this_thread::sleep_for(duration); }
    void occupy(nanoseconds duration) { std::this_thread::sleep_for(duration); }
    bool waitUntil(std::mutex& mutex, std::condition_variable& changed, const std::function<bool()>& reached) {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, kPatience, reached);
    }
    void onQueue(WorkQueue& queue, const Work& work) {
        std::promise<void> done;
        queue.async([&] {
            work();
            done.set_value();
        });
        done.get_future().wait();
    }
    nanoseconds now() { return std::chrono::steady_clock::now().time_since_epoch(); }
    WallTime wallNow() { return std::chrono::system_clock::now(); }
};

struct SimulatedWorld {
    sim::SimScheduler scheduler;
    sim::SimQueueService service{scheduler};

    std::shared_ptr<WorkQueue> makeQueue(std::string_view label) {
        return service.makeSerialQueue(label, QualityOfService::standard);
    }
    void start() {
        service.giveMainThread();
        scheduler.runPending();
    }
    void stop() {}
    void pass(nanoseconds duration) { scheduler.advance(duration); }
    void occupy(nanoseconds duration) { scheduler.spend(duration); }
    bool waitUntil(std::mutex&, std::condition_variable&, const std::function<bool()>& reached) {
        for (nanoseconds waited{0}; waited < kPatience && !reached(); waited += 1ms) scheduler.advance(1ms);
        return reached();
    }
    void onQueue(WorkQueue& queue, const Work& work) {
        queue.async(work);
        scheduler.runPending();
    }
    nanoseconds now() { return scheduler.monotonicNow(); }
    WallTime wallNow() { return scheduler.wallNow(); }
};

template <class World>
class WorkQueueContract : public testing::Test {
protected:
    struct Entry {
        std::string what;
        nanoseconds when;
        WallTime wallTime;
    };

    void TearDown() override {
        world.stop();
        timers.clear();
    }
    // Notes that it happened, from whatever thread.
    void note(const std::string& what) {
        const std::lock_guard lock(mutex);
        entries.push_back({what, world.now(), world.wallNow()});
        changed.notify_all();
    }
    Work noting(const std::string& what) {
        return [this, what] { note(what); };
    }
    [[nodiscard]] bool waitForCount(std::size_t count) {
        return world.waitUntil(mutex, changed, [&] { return entries.size() >= count; });
    }
    std::vector<Entry> log() {
        const std::lock_guard lock(mutex);
        return entries;
    }
    std::vector<std::string> order() {
        std::vector<std::string> names;
        for (const Entry& entry : log()) names.push_back(entry.what);
        return names;
    }
    RepeatingTimer& addTimer(Work handler) { return *timers.emplace_back(queue->makeTimer(std::move(handler))); }

    World world;
    std::shared_ptr<WorkQueue> queue = world.makeQueue("com.norvane.test.queue");
    std::vector<std::unique_ptr<RepeatingTimer>> timers;
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<Entry> entries;
};

using Worlds = testing::Types<LinuxWorld, SimulatedWorld>;
TYPED_TEST_SUITE(WorkQueueContract, Worlds);

using Order = std::vector<std::string>;

TYPED_TEST(WorkQueueContract, KeepsItsLabel) { EXPECT_EQ(this->queue->label(), "com.norvane.test.queue"); }

TYPED_TEST(WorkQueueContract, RunsWorkInTheOrderItWasPosted) {
    this->world.start();
    Order expected;
    for (int index = 0; index < 500; ++index) {
        expected.push_back(std::to_string(index));
        this->queue->async(this->noting(expected.back()));
    }
    ASSERT_TRUE(this->waitForCount(500));
    EXPECT_EQ(this->order(), expected);
}

TYPED_TEST(WorkQueueContract, DeliversNothingBeforeTheMainThreadIsGiven) {
    this->queue->async(this->noting("work"));
    this->queue->asyncAfter(1ms, this->noting("delayed"));
    this->queue->asyncAt(this->world.wallNow() + 1ms, this->noting("wall"));
    RepeatingTimer& timer = this->addTimer(this->noting("timer"));
    timer.schedule({1ms, 1h, 0ns});
    timer.start();
    this->world.pass(20ms);
    EXPECT_EQ(this->order(), Order{});

    this->world.start();
    ASSERT_TRUE(this->waitForCount(4));
    EXPECT_EQ(this->order().front(), "work");
}

TYPED_TEST(WorkQueueContract, WorkPostedByWorkWaitsItsTurn) {
    this->world.start();
    this->world.onQueue(*this->queue, [this] {
        this->queue->async([this] {
            this->note("first");
            this->queue->async(this->noting("third"));
        });
        this->queue->async(this->noting("second"));
    });
    ASSERT_TRUE(this->waitForCount(3));
    EXPECT_EQ(this->order(), (Order{"first", "second", "third"}));
}

TYPED_TEST(WorkQueueContract, OneQueueMayPostToAnother) {
    const auto other = this->world.makeQueue("com.norvane.test.other");
    this->queue->async([&] { other->async(this->noting("there")); });
    this->world.start();
    ASSERT_TRUE(this->waitForCount(1));
}

TYPED_TEST(WorkQueueContract, LetsGoOfWhatWorkHeldBeforeTheNextRuns) {
    auto held = std::make_shared<int>(0);
    const std::weak_ptr<int> watched = held;
    this->queue->async([kept = std::move(held)] { static_cast<void>(kept); });
    this->queue->async([&] { this->note(watched.expired() ? "gone" : "held"); });
    this->world.start();
    ASSERT_TRUE(this->waitForCount(1));
    EXPECT_EQ(this->order(), Order{"gone"});
}

TYPED_TEST(WorkQueueContract, DelayedWorkIsNeverEarly) {
    this->world.start();
    const nanoseconds begin = this->world.now();
    this->queue->asyncAfter(15ms, this->noting("delayed"));
    ASSERT_TRUE(this->waitForCount(1));
    EXPECT_GE(this->log().front().when, begin + 15ms);
}

TYPED_TEST(WorkQueueContract, TimedWorkReachesAQueueThatSleeps) {
    this->world.start();
    for (const char* turn : {"first", "second"}) {
        this->world.onQueue(*this->queue, [] {});
        this->world.pass(10ms);
        this->queue->asyncAfter(5ms, this->noting(turn));
    }
    ASSERT_TRUE(this->waitForCount(2));
    this->world.onQueue(*this->queue, [] {});
    this->world.pass(10ms);
    this->queue->asyncAt(this->world.wallNow() + 5ms, this->noting("wall"));
    ASSERT_TRUE(this->waitForCount(3));
}

TYPED_TEST(WorkQueueContract, DelayedWorkRunsInTheOrderOfItsMoments) {
    this->queue->asyncAfter(30ms, this->noting("late"));
    this->queue->asyncAfter(10ms, this->noting("early"));
    this->queue->asyncAfter(20ms, this->noting("middle"));
    this->world.start();
    ASSERT_TRUE(this->waitForCount(3));
    EXPECT_EQ(this->order(), (Order{"early", "middle", "late"}));
}

TYPED_TEST(WorkQueueContract, WorkWithoutDelayKeepsItsPlaceAmongPostedWork) {
    this->queue->async(this->noting("first"));
    this->queue->asyncAfter(0ns, this->noting("second"));
    this->queue->asyncAfter(-1s, this->noting("third"));
    this->queue->async(this->noting("fourth"));
    this->world.start();
    ASSERT_TRUE(this->waitForCount(4));
    EXPECT_EQ(this->order(), (Order{"first", "second", "third", "fourth"}));
}

TYPED_TEST(WorkQueueContract, AnEndlessDelayNeverEnds) {
    this->queue->asyncAfter(nanoseconds::max(), this->noting("never"));
    this->queue->asyncAfter(10ms, this->noting("soon"));
    this->world.start();
    ASSERT_TRUE(this->waitForCount(1));
    this->world.pass(5ms);
    EXPECT_EQ(this->order(), Order{"soon"});
}

TYPED_TEST(WorkQueueContract, WallTimedWorkIsNeverEarly) {
    const WallTime due = this->world.wallNow() + 15ms;
    this->queue->asyncAt(due, this->noting("wall"));
    this->world.start();
    ASSERT_TRUE(this->waitForCount(1));
    EXPECT_GE(this->log().front().wallTime, due);
}

TYPED_TEST(WorkQueueContract, WallTimedWorkOfThePastRunsAtOnceAndOnlyOnce) {
    this->queue->asyncAt(this->world.wallNow() - 1h, this->noting("past"));
    this->queue->async(this->noting("next"));
    this->world.start();
    ASSERT_TRUE(this->waitForCount(2));
    this->world.pass(5ms);
    EXPECT_EQ(this->order(), (Order{"past", "next"}));
}

TYPED_TEST(WorkQueueContract, WallTimedWorkRunsInTheOrderOfItsMoments) {
    const WallTime begin = this->world.wallNow();
    this->queue->asyncAt(begin + 20ms, this->noting("late"));
    this->queue->asyncAt(begin + 10ms, this->noting("early"));
    this->world.start();
    ASSERT_TRUE(this->waitForCount(2));
    EXPECT_EQ(this->order(), (Order{"early", "late"}));
}

TYPED_TEST(WorkQueueContract, TimerRepeatsAndIsNeverEarly) {
    const nanoseconds begin = this->world.now();
    RepeatingTimer& timer = this->addTimer(this->noting("timer"));
    timer.schedule({10ms, 5ms, 2ms});
    timer.start();
    this->world.start();
    ASSERT_TRUE(this->waitForCount(5));
    const auto log = this->log();
    for (int index = 0; index < 5; ++index) {
        EXPECT_GE(log[static_cast<std::size_t>(index)].when, begin + 10ms + index * 5ms) << index;
    }
}

TYPED_TEST(WorkQueueContract, TimerWaitsForItsStart) {
    RepeatingTimer& timer = this->addTimer(this->noting("timer"));
    timer.schedule({1ms, 1h, 0ns});
    this->world.start();
    this->world.pass(20ms);
    EXPECT_EQ(this->order(), Order{});
    // The due time was stored when it was scheduled, and is past.
    this->world.onQueue(*this->queue, [&] { timer.start(); });
    ASSERT_TRUE(this->waitForCount(1));
}

TYPED_TEST(WorkQueueContract, TimerWithoutAScheduleDoesNotFire) {
    RepeatingTimer& timer = this->addTimer(this->noting("timer"));
    timer.start();
    this->world.start();
    this->world.pass(10ms);
    EXPECT_EQ(this->order(), Order{});
    this->world.onQueue(*this->queue, [&] { timer.schedule({1ms, 1h, 0ns}); });
    ASSERT_TRUE(this->waitForCount(1));
}

TYPED_TEST(WorkQueueContract, StartingATimerTwiceChangesNothing) {
    RepeatingTimer& timer = this->addTimer(this->noting("timer"));
    timer.schedule({1ms, 1h, 0ns});
    timer.start();
    timer.start();
    this->world.start();
    ASSERT_TRUE(this->waitForCount(1));
    this->world.pass(10ms);
    EXPECT_EQ(this->order(), Order{"timer"});
}

TYPED_TEST(WorkQueueContract, ANewScheduleReplacesTheOldOne) {
    RepeatingTimer& postponed = this->addTimer(this->noting("postponed"));
    postponed.schedule({1ms, 1ms, 0ns});
    postponed.start();
    postponed.schedule({1h, 1h, 0ns});
    RepeatingTimer& advanced = this->addTimer(this->noting("advanced"));
    advanced.schedule({1h, 1h, 0ns});
    advanced.start();
    advanced.schedule({1ms, 1h, 0ns});
    this->world.start();
    ASSERT_TRUE(this->waitForCount(1));
    this->world.pass(10ms);
    EXPECT_EQ(this->order(), Order{"advanced"});
}

TYPED_TEST(WorkQueueContract, AHandlerMayScheduleItsTimerAnew) {
    RepeatingTimer* self = nullptr;
    RepeatingTimer& timer = this->addTimer([&] {
        this->note("timer");
        self->schedule({1h, 1h, 0ns});
    });
    self = &timer;
    timer.schedule({1ms, 1ms, 0ns});
    timer.start();
    this->world.start();
    ASSERT_TRUE(this->waitForCount(1));
    this->world.pass(15ms);
    EXPECT_EQ(this->order(), Order{"timer"});
}

TYPED_TEST(WorkQueueContract, ADestroyedTimerDoesNotFireAndLetsGoOfItsHandler) {
    auto held = std::make_shared<int>(0);
    const std::weak_ptr<int> watched = held;
    RepeatingTimer& timer = this->addTimer([this, kept = std::move(held)] { this->note("timer"); });
    timer.schedule({5ms, 1ms, 0ns});
    timer.start();
    this->timers.clear();
    EXPECT_TRUE(watched.expired());
    this->world.start();
    this->world.pass(15ms);
    EXPECT_EQ(this->order(), Order{});
}

TYPED_TEST(WorkQueueContract, AHandlerMayDestroyItsOwnTimer) {
    auto held = std::make_shared<std::string>("still here");
    const std::weak_ptr<std::string> watched = held;
    RepeatingTimer& timer = this->addTimer([this, kept = std::move(held)] {
        this->timers.clear();
        this->note(*kept);
    });
    timer.schedule({1ms, 1ms, 0ns});
    timer.start();
    this->world.start();
    ASSERT_TRUE(this->waitForCount(1));
    this->world.pass(15ms);
    this->world.onQueue(*this->queue, [&] { EXPECT_TRUE(watched.expired()); });
    EXPECT_EQ(this->order(), Order{"still here"});
}

TYPED_TEST(WorkQueueContract, AFiringAlreadyQueuedIsVoidOnceItsTimerIsGone) {
    // Both are overdue when the queue starts, so that both firings are at hand when the first handler runs.
    for (const char* name : {"first", "second"}) {
        RepeatingTimer& timer = this->addTimer([this, name] {
            this->note(name);
            this->timers.clear();
        });
        timer.schedule({1ms, 1ms, 0ns});
        timer.start();
    }
    this->world.pass(10ms);
    this->world.start();
    ASSERT_TRUE(this->waitForCount(1));
    this->world.pass(10ms);
    EXPECT_EQ(this->order(), Order{"first"});
}

TYPED_TEST(WorkQueueContract, ATimerNeverRepeatsFasterThanItsLeeway) {
    const nanoseconds begin = this->world.now();
    RepeatingTimer& timer = this->addTimer(this->noting("timer"));
    timer.schedule({0ns, 0ns, 20ms});
    timer.start();
    this->world.start();
    ASSERT_TRUE(this->waitForCount(5));
    const auto log = this->log();
    for (int index = 0; index < 5; ++index) {
        EXPECT_GE(log[static_cast<std::size_t>(index)].when, begin + index * 20ms) << index;
    }
}

TYPED_TEST(WorkQueueContract, ATimerOfNoIntervalAtAllLeavesTheQueueToOthers) {
    const nanoseconds begin = this->world.now();
    RepeatingTimer& timer = this->addTimer(this->noting("timer"));
    timer.schedule({0ns, 0ns, 0ns});
    timer.start();
    this->world.start();
    ASSERT_TRUE(this->waitForCount(10));
    EXPECT_GE(this->log()[9].when, begin + 9ms);
    this->world.onQueue(*this->queue, this->noting("other"));
}

TYPED_TEST(WorkQueueContract, MissedPeriodsAreNotReplayed) {
    RepeatingTimer& timer = this->addTimer(this->noting("timer"));
    timer.schedule({1ms, 20ms, 0ns});
    timer.start();
    // Five periods pass while the queue is busy.
    this->queue->async([this] {
        this->world.occupy(100ms);
        this->note("busy");
    });
    this->world.start();
    ASSERT_TRUE(this->waitForCount(5));
    const auto log = this->log();
    ASSERT_EQ(log.front().what, "busy");
    // The first comes at once, and the others one by one.
    EXPECT_GT(log[4].when, log[0].when + 40ms);
}

TYPED_TEST(WorkQueueContract, NegativeDelaysCountAsNone) {
    RepeatingTimer& timer = this->addTimer(this->noting("timer"));
    timer.schedule({-1h, 1h, -1s});
    timer.start();
    this->world.start();
    ASSERT_TRUE(this->waitForCount(1));
    this->world.pass(5ms);
    EXPECT_EQ(this->order(), Order{"timer"});
}

TYPED_TEST(WorkQueueContract, QueuesMadeAfterTheStartRunToo) {
    this->world.start();
    const auto later = this->world.makeQueue("com.norvane.test.later");
    later->async(this->noting("there"));
    ASSERT_TRUE(this->waitForCount(1));
}

}  // namespace
}  // namespace quorvix::work_queue_contract
