#include "platform/linux/WatchdogPing.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <future>
#include <string>

#include "platform/linux/QueueService.h"
#include "platform/sim/SimQueueService.h"

namespace quorvix::linuxos {
namespace {

using namespace std::chrono_literals;

TEST(WatchdogPing, ComesOftenEnoughForTheLimitHoweverLateTheTimerIs) {
    for (const auto use : {sim::SimScheduler::LeewayUse::none, sim::SimScheduler::LeewayUse::full}) {
        sim::SimScheduler scheduler;
        scheduler.setLeewayUse(use);
        sim::SimQueueService service(scheduler);
        service.giveMainThread();
        const auto queue = service.makeSerialQueue("daemon", QualityOfService::standard);
        auto last = scheduler.monotonicNow();
        std::chrono::nanoseconds longest{0};
        int pings = 0;
        const WatchdogPing ping(*queue, 60s, [&] {
            longest = std::max(longest, scheduler.monotonicNow() - last);
            last = scheduler.monotonicNow();
            ++pings;
        });
        scheduler.advance(600s);
        EXPECT_GE(pings, 20);
        EXPECT_LE(pings, 40);
        EXPECT_LE(longest, 30s);
    }
}

TEST(WatchdogPing, AQueueThatIsStuckSaysNothingUntilItGoesOn) {
    std::atomic<int> pings = 0;
    std::promise<void> stuck;
    std::promise<void> goOn;
    LinuxQueueService service;
    const auto queue = service.makeSerialQueue("daemon", QualityOfService::standard);
    auto ping = std::make_unique<WatchdogPing>(*queue, 4ms, [&] { ++pings; });
    service.start();
    while (pings == 0) ::usleep(1000);
    queue->async([&] {
        stuck.set_value();
        goOn.get_future().wait();
    });
    stuck.get_future().wait();
    const int before = pings;
    ::usleep(50'000);
    EXPECT_EQ(pings, before);
    goOn.set_value();
    while (pings == before) ::usleep(1000);
    // On its queue, as the class asks.
    std::promise<void> gone;
    queue->async([&] {
        ping.reset();
        gone.set_value();
    });
    gone.get_future().wait();
}

class WatchdogLimit : public testing::Test {
protected:
    ~WatchdogLimit() override {
        ::unsetenv("WATCHDOG_USEC");
        ::unsetenv("WATCHDOG_PID");
    }
    static std::optional<std::chrono::microseconds> limit(const char* limit, const std::string& pid) {
        ::setenv("WATCHDOG_USEC", limit, 1);
        ::setenv("WATCHDOG_PID", pid.c_str(), 1);
        return WatchdogPing::limitFromEnvironment();
    }
    const std::string own_ = std::to_string(::getpid());
};

TEST_F(WatchdogLimit, IsWhatTheServiceManagerAsksOfThisProcess) {
    EXPECT_EQ(WatchdogPing::limitFromEnvironment(), std::nullopt);
    EXPECT_EQ(limit("60000000", own_), 60s);
    EXPECT_EQ(limit("60000000", "1"), std::nullopt);
    EXPECT_EQ(limit("60000000", ""), std::nullopt);
    ::unsetenv("WATCHDOG_PID");
    EXPECT_EQ(WatchdogPing::limitFromEnvironment(), 60s);
}

TEST_F(WatchdogLimit, IsNothingWhereItIsNoNumberOfMicroseconds) {
    for (const char* text : {"", "0", "-1", "60s", "1e6", " 1", "31536000000001", "99999999999999999999"}) {
        EXPECT_EQ(limit(text, own_), std::nullopt) << text;
    }
    EXPECT_EQ(limit("31536000000000", own_), std::chrono::days(365));
}

}  // namespace
}  // namespace quorvix::linuxos
