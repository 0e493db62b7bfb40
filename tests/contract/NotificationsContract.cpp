#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>

#include "platform/linux/Notifications.h"
#include "platform/linux/QueueService.h"
#include "platform/sim/SimLog.h"
#include "platform/sim/SimNotifications.h"
#include "platform/sim/SimQueueService.h"
#include "platform/sim/SimScheduler.h"
#include "tests/support/TemporaryFolder.h"

namespace quorvix::notifications_contract {
namespace {

class LinuxHarness {
public:
    LinuxHarness() {
        barrier_ = service_->registerHandler("barrier", queue_, [this] { barrierReached_.set_value(); });
    }
    ~LinuxHarness() { queues_.reset(); }

    NotificationService& service() { return *service_; }
    const std::shared_ptr<WorkQueue>& queue() { return queue_; }
    void giveMainThread() { queues_->start(); }
    void post(std::string_view name) { ASSERT_TRUE(linuxos::postNotification(folder_.path(), name)); }
    void onQueue(Work work) {
        std::promise<void> done;
        queue_->async([&] {
            work();
            done.set_value();
        });
        done.get_future().wait();
    }
    // All that was posted before is delivered then: posts of one folder keep their order.
    void settle() {
        onQueue([this] { barrierReached_ = {}; });
        post("barrier");
        ASSERT_EQ(barrierReached_.get_future().wait_for(std::chrono::seconds(20)), std::future_status::ready);
    }
    // A registration on a folder that can't be.
    std::unique_ptr<NotificationToken> failToRegister() {
        tests::writeWholeFile(folder_.path("file"), "");
        broken_ = std::make_unique<linuxos::LinuxNotificationService>(log_, folder_.path("file"));
        return broken_->registerHandler("name", queue_, [] {});
    }

private:
    tests::TemporaryFolder folder_;
    sim::SimLog log_;
    std::promise<void> barrierReached_;
    std::unique_ptr<linuxos::LinuxNotificationService> service_ =
        std::make_unique<linuxos::LinuxNotificationService>(log_, folder_.path());
    std::unique_ptr<linuxos::LinuxNotificationService> broken_;
    std::unique_ptr<linuxos::LinuxQueueService> queues_ = std::make_unique<linuxos::LinuxQueueService>();
    std::shared_ptr<WorkQueue> queue_ = queues_->makeSerialQueue("test", QualityOfService::standard);
    std::unique_ptr<NotificationToken> barrier_;
};

class SimulatedHarness {
public:
    NotificationService& service() { return service_; }
    const std::shared_ptr<WorkQueue>& queue() { return queue_; }
    void giveMainThread() { queues_.giveMainThread(); }
    void post(std::string_view name) { service_.post(name); }
    void onQueue(Work work) {
        queue_->async(std::move(work));
        scheduler_.runPending();
    }
    void settle() { scheduler_.runPending(); }
    std::unique_ptr<NotificationToken> failToRegister() {
        service_.faults.failNext("registerHandler", ErrorCode{ENOTDIR});
        return service_.registerHandler("name", queue_, [] {});
    }

private:
    sim::SimScheduler scheduler_;
    sim::SimQueueService queues_{scheduler_};
    std::shared_ptr<WorkQueue> queue_ = queues_.makeSerialQueue("test", QualityOfService::standard);
    sim::SimNotifications service_;
};

template <class Harness>
class NotificationsContract : public testing::Test {
protected:
    // A registration that counts its deliveries. Before the main thread is given, or on the queue.
    std::unique_ptr<NotificationToken> count(std::string_view name, std::atomic<int>& counter) {
        return harness_.service().registerHandler(name, harness_.queue(), [&counter] { ++counter; });
    }

    std::atomic<int> first_{0};
    std::atomic<int> second_{0};
    Harness harness_;
};

using Implementations = testing::Types<LinuxHarness, SimulatedHarness>;
TYPED_TEST_SUITE(NotificationsContract, Implementations);

TYPED_TEST(NotificationsContract, EachPostRunsTheHandlerOnce) {
    const auto token = this->count("first", this->first_);
    ASSERT_NE(token, nullptr);
    this->harness_.giveMainThread();
    this->harness_.settle();
    EXPECT_EQ(this->first_, 0);
    for (int posts = 1; posts <= 5; ++posts) {
        this->harness_.post("first");
        this->harness_.settle();
        EXPECT_EQ(this->first_, posts);
    }
}

TYPED_TEST(NotificationsContract, NothingIsDeliveredBeforeTheMainThreadIsGiven) {
    const auto token = this->count("first", this->first_);
    this->harness_.post("first");
    EXPECT_EQ(this->first_, 0);
    this->harness_.giveMainThread();
    this->harness_.settle();
    EXPECT_EQ(this->first_, 1);
}

TYPED_TEST(NotificationsContract, OnlyThePostedNameIsDelivered) {
    const auto first = this->count("first", this->first_);
    const auto second = this->count("second", this->second_);
    this->harness_.giveMainThread();
    this->harness_.post("second");
    this->harness_.post("nobody's");
    this->harness_.settle();
    EXPECT_EQ(this->first_, 0);
    EXPECT_EQ(this->second_, 1);
}

TYPED_TEST(NotificationsContract, EveryRegistrationOfANameIsDelivered) {
    const auto first = this->count("name", this->first_);
    const auto second = this->count("name", this->second_);
    this->harness_.giveMainThread();
    this->harness_.post("name");
    this->harness_.settle();
    EXPECT_EQ(this->first_, 1);
    EXPECT_EQ(this->second_, 1);
}

TYPED_TEST(NotificationsContract, DestroyedTokenEndsTheDelivery) {
    auto first = this->count("name", this->first_);
    const auto second = this->count("name", this->second_);
    this->harness_.giveMainThread();
    this->harness_.onQueue([&] { first.reset(); });
    this->harness_.post("name");
    this->harness_.settle();
    EXPECT_EQ(this->first_, 0);
    EXPECT_EQ(this->second_, 1);
}

TYPED_TEST(NotificationsContract, DestroyedTokenStopsADeliveryThatWaits) {
    auto token = this->count("name", this->first_);
    this->harness_.giveMainThread();
    this->harness_.onQueue([&] {
        this->harness_.post("name");
        token.reset();
    });
    this->harness_.settle();
    EXPECT_EQ(this->first_, 0);
}

TYPED_TEST(NotificationsContract, HandlerMayDropItsOwnToken) {
    std::unique_ptr<NotificationToken> token;
    token = this->harness_.service().registerHandler("name", this->harness_.queue(), [&] {
        token.reset();
        ++this->first_;
    });
    this->harness_.giveMainThread();
    for (int i = 0; i < 2; ++i) {
        this->harness_.post("name");
        this->harness_.settle();
    }
    EXPECT_EQ(this->first_, 1);
}

TYPED_TEST(NotificationsContract, HandlerMayRegisterAnother) {
    std::unique_ptr<NotificationToken> inner;
    const auto outer = this->harness_.service().registerHandler("outer", this->harness_.queue(),
                                                                [&] { inner = this->count("inner", this->first_); });
    this->harness_.giveMainThread();
    this->harness_.post("outer");
    this->harness_.settle();
    this->harness_.post("inner");
    this->harness_.settle();
    EXPECT_EQ(this->first_, 1);
}

TYPED_TEST(NotificationsContract, FailedRegistrationGivesNothing) {
    EXPECT_EQ(this->harness_.failToRegister(), nullptr);
}

}  // namespace
}  // namespace quorvix::notifications_contract
