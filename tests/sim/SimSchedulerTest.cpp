#include "platform/sim/SimScheduler.h"

#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "platform/sim/SimLifecycle.h"
#include "platform/sim/SimQueueService.h"
#include "platform/sim/SimTickClock.h"

namespace quorvix::sim {
namespace {

using namespace std::chrono_literals;
using Order = std::vector<std::string>;

class SimSchedulerTest : public testing::Test {
protected:
    SimSchedulerTest() { service.giveMainThread(); }
    // Notes the moment since the start, in milliseconds.
    Work noting(const std::string& what) {
        return [this, what] { note(what); };
    }
    void note(const std::string& what) {
        const auto since = std::chrono::duration_cast<std::chrono::milliseconds>(scheduler.monotonicNow() - begin);
        log.push_back(what + "@" + std::to_string(since.count()));
    }
    std::unique_ptr<RepeatingTimer> startedTimer(const TimerSchedule& schedule, Work handler) {
        auto timer = queue->makeTimer(std::move(handler));
        timer->schedule(schedule);
        timer->start();
        return timer;
    }

    SimScheduler scheduler;
    SimQueueService service{scheduler};
    std::shared_ptr<WorkQueue> queue = service.makeSerialQueue("test", QualityOfService::utility);
    SimScheduler::Nanoseconds begin = scheduler.monotonicNow();
    Order log;
};

TEST_F(SimSchedulerTest, StepsThroughEveryDueMomentInOrder) {
    queue->asyncAfter(30ms, noting("c"));
    queue->asyncAfter(10ms, [this] {
        note("a");
        queue->asyncAfter(10ms, noting("b"));
    });
    scheduler.advance(1s);
    EXPECT_EQ(log, (Order{"a@10", "b@20", "c@30"}));
    EXPECT_EQ(scheduler.monotonicNow(), begin + 1s);
}

TEST_F(SimSchedulerTest, EqualMomentsGoByTheOrderOfPosting) {
    const auto other = service.makeSerialQueue("other", QualityOfService::standard);
    queue->asyncAfter(10ms, noting("first"));
    other->asyncAt(scheduler.wallNow() + 10ms, noting("second"));
    queue->asyncAfter(10ms, noting("third"));
    scheduler.advance(10ms);
    EXPECT_EQ(log, (Order{"first@10", "second@10", "third@10"}));
}

TEST_F(SimSchedulerTest, AMomentComesExactlyWhenDue) {
    queue->asyncAfter(10ms, noting("delayed"));
    scheduler.advance(10ms - 1ns);
    EXPECT_EQ(log, Order{});
    scheduler.advance(1ns);
    EXPECT_EQ(log, Order{"delayed@10"});
    scheduler.advance(1ns);
    EXPECT_EQ(log, Order{"delayed@10"});
}

TEST_F(SimSchedulerTest, WhatFollowsFromAMomentIsDoneBeforeTheNext) {
    queue->asyncAfter(10ms, [this] { queue->async([this] { queue->async(noting("follows")); }); });
    queue->asyncAfter(11ms, noting("next"));
    scheduler.advance(20ms);
    EXPECT_EQ(log, (Order{"follows@10", "next@11"}));
}

TEST_F(SimSchedulerTest, PendingWorkRunsWithoutMovingTime) {
    queue->async(noting("work"));
    queue->asyncAfter(1ns, noting("later"));
    scheduler.runPending();
    EXPECT_EQ(log, Order{"work@0"});
    EXPECT_EQ(scheduler.waitingCount(), 1u);
}

TEST_F(SimSchedulerTest, TheClocksAdvanceTogetherAndMoveAlone) {
    const WallTime wall = scheduler.wallNow();
    scheduler.advance(5s);
    EXPECT_EQ(scheduler.wallNow(), wall + 5s);
    scheduler.setWallClock(wall);
    EXPECT_EQ(scheduler.monotonicNow(), begin + 5s);
    scheduler.advanceMonotonicOnly(5s);
    EXPECT_EQ(scheduler.wallNow(), wall);
    EXPECT_EQ(scheduler.monotonicNow(), begin + 10s);
}

TEST_F(SimSchedulerTest, AStepForwardMakesWallTimedWorkDue) {
    const WallTime due = scheduler.wallNow() + 1h;
    queue->asyncAt(due, noting("wall"));
    scheduler.setWallClock(due - 1ns);
    EXPECT_EQ(log, Order{});
    scheduler.setWallClock(due);
    EXPECT_EQ(log, Order{"wall@0"});
}

TEST_F(SimSchedulerTest, AStepBackPostponesWallTimedWork) {
    const WallTime wall = scheduler.wallNow();
    queue->asyncAt(wall + 10ms, noting("wall"));
    scheduler.advance(5ms);
    scheduler.setWallClock(wall);
    scheduler.advance(10ms - 1ns);
    EXPECT_EQ(log, Order{});
    scheduler.advance(1ns);
    EXPECT_EQ(log, Order{"wall@15"});
}

TEST_F(SimSchedulerTest, AWallClockThatStandsHoldsWallTimedWorkBack) {
    queue->asyncAt(scheduler.wallNow() + 10ms, noting("wall"));
    scheduler.advanceMonotonicOnly(1h);
    EXPECT_EQ(log, Order{});
}

TEST_F(SimSchedulerTest, WorkMaySpendTimeAndOthersComeLate) {
    queue->asyncAfter(10ms, [this] {
        scheduler.spend(25ms);
        note("spender");
    });
    queue->asyncAfter(20ms, noting("waiting"));
    scheduler.advance(30ms);
    EXPECT_EQ(log, (Order{"spender@35", "waiting@35"}));
    EXPECT_EQ(scheduler.monotonicNow(), begin + 35ms);
}

TEST_F(SimSchedulerTest, TimersUseTheirLeewayOnlyWhenTold) {
    const auto timer = startedTimer({5s, 5s, 1s}, noting("timer"));
    scheduler.advance(10s);
    EXPECT_EQ(log, (Order{"timer@5000", "timer@10000"}));
    log.clear();
    scheduler.setLeewayUse(SimScheduler::LeewayUse::full);
    scheduler.advance(11s);
    // The firing at 15 s was armed before.
    EXPECT_EQ(log, (Order{"timer@15000", "timer@21000"}));
}

TEST_F(SimSchedulerTest, AVariedLeewayIsTheSameForTheSameSeedAndNeverMoreThanAll) {
    SimScheduler other;
    scheduler.setLeewayUse(SimScheduler::LeewayUse::varied, 7);
    other.setLeewayUse(SimScheduler::LeewayUse::varied, 7);
    std::set<std::chrono::nanoseconds> seen;
    for (const std::chrono::seconds due : {1s, 2s, 3s, 4s}) {
        const auto used = scheduler.leewayUsed(due, 1s);
        EXPECT_LE(used, 1s);
        EXPECT_EQ(used % 1ms, 0ms);
        EXPECT_EQ(used, other.leewayUsed(due, 1s));
        EXPECT_EQ(scheduler.leewayUsed(due, 0s), 0s);
        seen.insert(used);
    }
    EXPECT_GT(seen.size(), 1u);
    other.setLeewayUse(SimScheduler::LeewayUse::varied, 8);
    EXPECT_NE(scheduler.leewayUsed(1s, 1s), other.leewayUsed(1s, 1s));
}

TEST_F(SimSchedulerTest, WhatComesDueWhileWakeUpsAreHeldComesAtTheEndInItsOrder) {
    const auto timer = startedTimer({5s, 5s, 1s}, noting("timer"));
    queue->asyncAt(scheduler.wallNow() + 6s, noting("wall"));
    queue->asyncAfter(7s, noting("late"));
    queue->asyncAfter(4s, noting("before"));
    scheduler.advance(4s);
    scheduler.holdWakeUps(4s);
    scheduler.holdWakeUps(1s);
    scheduler.advance(3s);
    EXPECT_EQ(log, (Order{"before@4000"}));
    queue->async(noting("posted"));
    scheduler.advance(3s);
    EXPECT_EQ(log, (Order{"before@4000", "posted@7000", "timer@8000", "wall@8000", "late@8000", "timer@10000"}));
}

TEST_F(SimSchedulerTest, ATimerOfIntervalZeroRepeatsEveryLeeway) {
    const auto timer = startedTimer({0s, 0s, 1s}, noting("timer"));
    scheduler.advance(2s);
    EXPECT_EQ(log, (Order{"timer@0", "timer@1000", "timer@2000"}));
}

TEST_F(SimSchedulerTest, RescheduleCountsFromNow) {
    const auto timer = startedTimer({5s, 5s, 0s}, noting("timer"));
    scheduler.advance(4s);
    timer->schedule({3s, 10s, 0s});
    scheduler.advance(13s);
    EXPECT_EQ(log, (Order{"timer@7000", "timer@17000"}));
}

TEST_F(SimSchedulerTest, AMissedPeriodFiresOnceAndTheGridStays) {
    const auto timer = startedTimer({5s, 5s, 0s}, noting("timer"));
    queue->asyncAfter(1s, [this] { scheduler.spend(16s); });
    scheduler.advance(20s);
    EXPECT_EQ(log, (Order{"timer@17000", "timer@20000"}));
}

TEST_F(SimSchedulerTest, AWeekOfFiveSecondTicksIsCountedToTheLast) {
    int count = 0;
    const auto timer = startedTimer({5s, 5s, 1s}, [&] { ++count; });
    scheduler.advance(std::chrono::weeks(1));
    EXPECT_EQ(count, 7 * 24 * 60 * 60 / 5);
}

TEST_F(SimSchedulerTest, TheEndOfTheProcessPassesThroughAndLeavesTheRestPending) {
    SimLifecycle lifecycle;
    queue->async([&] { lifecycle.exit(71); });
    queue->async(noting("after"));
    EXPECT_THROW(scheduler.runPending(), SimulatedExit);
    EXPECT_EQ(lifecycle.exitStatus(), 71);
    EXPECT_EQ(scheduler.readyCount(), 1u);
    scheduler.dropEverything();
    scheduler.advance(1s);
    EXPECT_EQ(log, Order{});
}

TEST_F(SimSchedulerTest, DroppingLetsGoOfEverythingThatWaits) {
    auto held = std::make_shared<int>(0);
    const std::weak_ptr<int> watched = held;
    queue->asyncAfter(1s, [kept = held] { static_cast<void>(kept); });
    queue->asyncAt(scheduler.wallNow() + 1s, [kept = std::move(held)] { static_cast<void>(kept); });
    scheduler.dropEverything();
    EXPECT_TRUE(watched.expired());
    EXPECT_EQ(scheduler.waitingCount(), 0u);
}

TEST(SimQueueService, RunMainGivesTheMainThreadAndReturnsToTheTest) {
    SimScheduler scheduler;
    SimQueueService service(scheduler);
    EXPECT_FALSE(scheduler.mainThreadGiven());
    EXPECT_THROW(service.runMain(), MainThreadGiven);
    EXPECT_TRUE(scheduler.mainThreadGiven());
}

TEST(SimQueueService, ATimerThatPilesUpFiresOnceWhenTheMainThreadIsGiven) {
    SimScheduler scheduler;
    SimQueueService service(scheduler);
    const auto queue = service.makeSerialQueue("test", QualityOfService::standard);
    int count = 0;
    const auto timer = queue->makeTimer([&] { ++count; });
    timer->schedule({5s, 5s, 0s});
    timer->start();
    scheduler.advance(60s);
    EXPECT_EQ(count, 0);
    service.giveMainThread();
    scheduler.runPending();
    EXPECT_EQ(count, 1);
}

TEST(SimQueueService, RemembersItsQueues) {
    SimScheduler scheduler;
    SimQueueService service(scheduler);
    service.makeSerialQueue("com.norvane.a", QualityOfService::background);
    service.makeSerialQueue("com.norvane.b", QualityOfService::userInitiated);
    ASSERT_EQ(service.queues().size(), 2u);
    EXPECT_EQ(service.find("com.norvane.b")->quality(), QualityOfService::userInitiated);
    EXPECT_EQ(service.find("com.norvane.c"), nullptr);
}

TEST(SimTickClock, AMillisecondTickTurnsOverExactly) {
    SimScheduler scheduler(5s);
    SimTickClock clock(scheduler, SimTickClock::kMillisecondTicks);
    EXPECT_EQ(clock.now(), 5000u);
    scheduler.advance(1ms - 1ns);
    EXPECT_EQ(clock.now(), 5000u);
    scheduler.advance(1ns);
    EXPECT_EQ(clock.now(), 5001u);
}

TEST(SimTickClock, DeviceTicksAre24MHz) {
    SimScheduler scheduler(5s);
    SimTickClock clock(scheduler);
    EXPECT_EQ(clock.now(), 120'000'000u);
}

TEST(SimLifecycle, RecordsReadiness) {
    SimLifecycle lifecycle;
    EXPECT_EQ(lifecycle.readyCount(), 0);
    lifecycle.ready();
    EXPECT_EQ(lifecycle.readyCount(), 1);
    EXPECT_EQ(lifecycle.exitStatus(), std::nullopt);
}

}  // namespace
}  // namespace quorvix::sim
