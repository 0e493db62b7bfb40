#include "platform/linux/Notifications.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <future>
#include <mutex>
#include <vector>

#include "platform/linux/QueueService.h"
#include "platform/linux/WorkQueue.h"
#include "platform/sim/SimLog.h"
#include "tests/support/TemporaryFolder.h"

namespace quorvix::linuxos {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

// The names that were delivered, in order, from the queue to the test.
class Deliveries {
public:
    void add(const std::string& name) {
        const std::lock_guard lock(mutex_);
        names_.push_back(name);
        changed_.notify_all();
    }
    std::vector<std::string> names() {
        const std::lock_guard lock(mutex_);
        return names_;
    }
    // The names up to and including `last`; all there are when it does not come.
    std::vector<std::string> takeUpTo(const std::string& last) {
        std::unique_lock lock(mutex_);
        const auto there = [&] { return std::find(names_.begin(), names_.end(), last) != names_.end(); };
        EXPECT_TRUE(changed_.wait_for(lock, std::chrono::seconds(20), there)) << last << " did not come";
        return std::exchange(names_, {});
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> names_;
};

class NotificationsTest : public testing::Test {
protected:
    ~NotificationsTest() override { queues_.reset(); }

    void watch(const std::string& name) {
        tokens_.push_back(service_.registerHandler(name, queue_, [this, name] { deliveries_.add(name); }));
        ASSERT_NE(tokens_.back(), nullptr);
    }
    void post(const std::string& name) { ASSERT_TRUE(postNotification(folder(), name)); }
    std::string folder() const { return parent_.path("vex/notify"); }
    std::string file(const std::string& name) const { return folder() + "/" + name; }
    std::uint64_t counter(const std::string& name) const {
        const JsonObject counters = service_.selfCounters();
        for (const auto& [key, value] : counters.members()) {
            if (key == name) return std::get<std::uint64_t>(value.content());
        }
        ADD_FAILURE() << name;
        return 0;
    }

    tests::TemporaryFolder parent_;
    sim::SimLog log_;
    Deliveries deliveries_;
    LinuxNotificationService service_{log_, folder()};
    std::unique_ptr<LinuxQueueService> queues_ = std::make_unique<LinuxQueueService>();
    std::shared_ptr<WorkQueue> queue_ = queues_->makeSerialQueue("test", QualityOfService::standard);
    std::vector<std::unique_ptr<NotificationToken>> tokens_;
};

TEST_F(NotificationsTest, MakesTheFolderAndTheFile) {
    watch("name");
    struct stat status {};
    ASSERT_EQ(stat(folder().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0755u);
    ASSERT_EQ(stat(file("name").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0644u);
}

TEST_F(NotificationsTest, ARegistrationFromAnotherQueueIsServedOnItsOwn) {
    watch("last");
    queues_->start();
    const auto other = queues_->makeSerialQueue("other", QualityOfService::standard);
    tokens_.push_back(service_.registerHandler("name", other, [&] {
        const bool onItsQueue = LinuxWorkQueue::from(*other).onQueue();
        deliveries_.add(onItsQueue ? "name" : "name elsewhere");
    }));
    ASSERT_NE(tokens_.back(), nullptr);
    std::promise<void> registered;
    other->async([&] { registered.set_value(); });
    registered.get_future().wait();
    post("name");
    EXPECT_THAT(deliveries_.takeUpTo("name"), ElementsAre("name"));
    // Dropped on its queue.
    std::promise<void> dropped;
    other->async([&] {
        tokens_.pop_back();
        dropped.set_value();
    });
    dropped.get_future().wait();
}

TEST_F(NotificationsTest, MakingTheFileIsNoPost) {
    watch("name");
    watch("last");
    queues_->start();
    post("last");
    EXPECT_THAT(deliveries_.takeUpTo("last"), ElementsAre("last"));
}

TEST_F(NotificationsTest, EveryWayToPostIsOnePost) {
    watch("name");
    watch("last");
    queues_->start();
    const std::vector<Work> ways = {
        [&] { post("name"); },
        [&] { tests::writeWholeFile(file("name"), ""); },
        [&] { tests::writeWholeFile(file("name"), std::string(100'000, 'x')); },
        [&] {
            tests::writeWholeFile(parent_.path("elsewhere"), "x");
            std::filesystem::rename(parent_.path("elsewhere"), file("name"));
        },
        [&] {
            std::filesystem::remove(file("name"));
            post("name");
        },
    };
    for (const Work& way : ways) {
        way();
        post("last");
        EXPECT_THAT(deliveries_.takeUpTo("last"), ElementsAre("name", "last"));
    }
}

TEST_F(NotificationsTest, ReadingTheFileIsNoPost) {
    watch("name");
    watch("last");
    queues_->start();
    tests::readWholeFile(file("name"));
    std::filesystem::permissions(file("name"), std::filesystem::perms::owner_all);
    post("last");
    EXPECT_THAT(deliveries_.takeUpTo("last"), ElementsAre("last"));
}

TEST_F(NotificationsTest, RemovedFolderIsMadeAndWatchedAgain) {
    watch("name");
    queues_->start();
    std::filesystem::remove_all(folder());
    // Posts may have been missed, so the handler runs for the folder's return.
    EXPECT_THAT(deliveries_.takeUpTo("name"), ElementsAre("name"));
    EXPECT_TRUE(std::filesystem::exists(file("name")));
    post("name");
    EXPECT_THAT(deliveries_.takeUpTo("name"), ElementsAre("name"));
    EXPECT_EQ(counter("folderLosses"), 1u);
    EXPECT_THAT(log_.texts("platform"), ElementsAre(folder() + ": was gone, is watched again"));
}

TEST_F(NotificationsTest, MovedFolderIsNoLongerWatched) {
    watch("name");
    watch("last");
    queues_->start();
    std::filesystem::rename(folder(), parent_.path("moved"));
    EXPECT_THAT(deliveries_.takeUpTo("last"), ElementsAre("name", "last"));
    ASSERT_TRUE(postNotification(parent_.path("moved"), "name"));
    post("last");
    EXPECT_THAT(deliveries_.takeUpTo("last"), ElementsAre("last"));
}

TEST_F(NotificationsTest, FolderThatCannotComeBackYetIsTriedAgain) {
    watch("name");
    std::filesystem::remove_all(parent_.path("vex"));
    tests::writeWholeFile(parent_.path("vex"), "in the way");
    queues_->start();
    while (log_.texts("platform").empty()) std::this_thread::yield();
    EXPECT_THAT(log_.texts("platform"), ElementsAre(HasSubstr("can't be watched: Not a directory")));
    std::filesystem::remove(parent_.path("vex"));
    EXPECT_THAT(deliveries_.takeUpTo("name"), ElementsAre("name"));
    EXPECT_EQ(counter("folderLosses"), 1u);
}

TEST_F(NotificationsTest, LostPostsRunEveryHandler) {
    const std::string limitText = tests::readWholeFile("/proc/sys/fs/inotify/max_queued_events");
    const long limit = std::stol(limitText);
    ASSERT_GT(limit, 0);
    if (limit > 100'000) GTEST_SKIP() << "the kernel's queue is too long to fill here: " << limit;
    watch("wanted");
    // Two names in turn, since the kernel merges equal neighbours.
    for (long i = 0; i <= limit; ++i) post(i % 2 == 0 ? "even" : "odd");
    post("wanted");
    queues_->start();
    EXPECT_THAT(deliveries_.takeUpTo("wanted"), ElementsAre("wanted"));
    EXPECT_EQ(counter("overflows"), 1u);
}

TEST_F(NotificationsTest, TwoQueuesGetTheSamePost) {
    watch("name");
    const auto other = queues_->makeSerialQueue("other", QualityOfService::standard);
    tokens_.push_back(service_.registerHandler("name", other, [this] { deliveries_.add("on the other"); }));
    queues_->start();
    post("name");
    auto names = deliveries_.takeUpTo("on the other");
    if (names.size() == 1) names = deliveries_.takeUpTo("name");
    EXPECT_THAT(names, testing::Contains("name"));
}

TEST_F(NotificationsTest, WhatIsNoFileNameIsRefused) {
    for (const char* name : {"", ".", "..", "a/b"}) {
        EXPECT_EQ(service_.registerHandler(name, queue_, [] {}), nullptr) << name;
        EXPECT_FALSE(postNotification(folder(), name)) << name;
    }
    EXPECT_EQ(counter("registrationFailures"), 4u);
}

TEST_F(NotificationsTest, PostMakesFolderAndFile) {
    ASSERT_TRUE(postNotification(folder(), "name"));
    struct stat status {};
    ASSERT_EQ(stat(file("name").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0644u);
}

TEST_F(NotificationsTest, PostNeverWaitsForAPipe) {
    std::filesystem::create_directories(folder());
    ASSERT_EQ(mkfifo(file("name").c_str(), 0644), 0);
    EXPECT_EQ(postNotification(folder(), "name").error().value, ENXIO);
}

}  // namespace
}  // namespace quorvix::linuxos
