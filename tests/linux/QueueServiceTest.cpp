#include "platform/linux/QueueService.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <future>
#include <string>
#include <thread>
#include <variant>
#include <vector>

// The queues' threads, as the system sees them.

namespace quorvix::linuxos {
namespace {

using namespace std::chrono_literals;

class QueueServiceTest : public testing::Test {
protected:
    void TearDown() override { service.reset(); }
    static void onQueue(WorkQueue& queue, const Work& work) {
        std::promise<void> done;
        queue.async([&] {
            work();
            done.set_value();
        });
        done.get_future().wait();
    }
    std::shared_ptr<WorkQueue> startedQueue(std::string_view label = "test",
                                            QualityOfService quality = QualityOfService::standard) {
        service->start();
        return service->makeSerialQueue(label, quality);
    }

    std::vector<std::unique_ptr<RepeatingTimer>> timers;
    std::unique_ptr<LinuxQueueService> service = std::make_unique<LinuxQueueService>();
};

TEST_F(QueueServiceTest, ThreadsBearTheLastPartOfTheLabelCutToFifteenBytes) {
    std::array<char, 16> name{};
    onQueue(*startedQueue("com.norvane.quorvixd.a-rather-long-name"),
            [&] { pthread_getname_np(pthread_self(), name.data(), name.size()); });
    EXPECT_STREQ(name.data(), "a-rather-long-n");
    onQueue(*startedQueue("plain"), [&] { pthread_getname_np(pthread_self(), name.data(), name.size()); });
    EXPECT_STREQ(name.data(), "plain");
}

TEST_F(QueueServiceTest, QualityOfServiceIsTheThreadsNiceValue) {
    int nice = 0;
    const auto readNice = [&] { nice = getpriority(PRIO_PROCESS, static_cast<id_t>(gettid())); };
    onQueue(*startedQueue("quiet", QualityOfService::background), readNice);
    EXPECT_EQ(nice, 15);
    // The caller's own is untouched.
    readNice();
    EXPECT_LT(nice, 15);
}

TEST_F(QueueServiceTest, SignalsAreBlockedButThoseOfFaults) {
    sigset_t mask{};
    onQueue(*startedQueue(), [&] { pthread_sigmask(SIG_BLOCK, nullptr, &mask); });
    for (const int blocked : {SIGTERM, SIGINT, SIGPIPE, SIGUSR1, SIGCHLD}) EXPECT_EQ(sigismember(&mask, blocked), 1);
    for (const int open : {SIGSEGV, SIGBUS}) EXPECT_EQ(sigismember(&mask, open), 0);
}

TEST_F(QueueServiceTest, WorkFromManyThreadsRunsOneAtATimeAndInEachThreadsOrder) {
    constexpr int kThreads = 4;
    constexpr int kEach = 2000;
    const auto queue = startedQueue();
    std::array<int, kThreads> next{};
    std::atomic<bool> inside{false};
    int wrong = 0;
    std::vector<std::thread> threads;
    for (std::size_t thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([&, thread] {
            for (int index = 0; index < kEach; ++index) {
                queue->async([&, thread, index] {
                    if (inside.exchange(true) || next[thread]++ != index) ++wrong;
                    inside = false;
                });
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    onQueue(*queue, [] {});
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(next, (std::array<int, kThreads>{kEach, kEach, kEach, kEach}));
}

TEST_F(QueueServiceTest, CountsTheMostWorkThatEverWaited) {
    const auto queue = service->makeSerialQueue("com.norvane.test", QualityOfService::standard);
    for (int index = 0; index < 7; ++index) queue->async([] {});
    EXPECT_EQ(LinuxWorkQueue::from(*queue).counters().pendingHighWater, 7u);
    service->start();
    onQueue(*queue, [] {});
    EXPECT_LE(LinuxWorkQueue::from(*queue).counters().pendingHighWater, 8u);

    const JsonObject counters = service->selfCounters();
    ASSERT_EQ(counters.members().size(), 1u);
    EXPECT_EQ(counters.members()[0].first, "com.norvane.test");
    const auto& members = std::get<JsonObject>(counters.members()[0].second.content()).members();
    EXPECT_EQ(members[0].first, "turns");
    EXPECT_EQ(members[1].first, "pendingHighWater");
    EXPECT_GE(std::get<std::uint64_t>(members[1].second.content()), 7u);
}

TEST_F(QueueServiceTest, MemoryIsGivenBackOnceWhenTheLastDelayedWorkIsDone) {
    const auto queue = startedQueue();
    const auto given = [&] { return LinuxWorkQueue::from(*queue).counters().memoryGivenBack; };
    queue->asyncAfter(1h, [] {});
    std::promise<void> first;
    queue->asyncAfter(1ms, [&] { first.set_value(); });
    first.get_future().wait();
    onQueue(*queue, [] {});
    EXPECT_EQ(given(), 0u) << "some of it still waits";

    const auto other = service->makeSerialQueue("other", QualityOfService::standard);
    const auto ofOther = [&] { return LinuxWorkQueue::from(*other).counters().memoryGivenBack; };
    for (int index = 0; index < 100; ++index) onQueue(*other, [] {});
    EXPECT_EQ(ofOther(), 0u) << "nothing of it was delayed";
    std::promise<void> last;
    other->asyncAfter(1ms, [&] { last.set_value(); });
    last.get_future().wait();
    while (ofOther() == 0) std::this_thread::yield();
    for (int index = 0; index < 100; ++index) onQueue(*other, [] {});
    EXPECT_EQ(ofOther(), 1u);
}

TEST_F(QueueServiceTest, AnIdleQueueHasNoWakeUps) {
    const auto queue = startedQueue();
    onQueue(*queue, [] {});
    const std::uint64_t before = LinuxWorkQueue::from(*queue).counters().turns;
    ::usleep(50'000);
    EXPECT_EQ(LinuxWorkQueue::from(*queue).counters().turns, before);
}

TEST_F(QueueServiceTest, TimersWhoseLeewaysOverlapShareAWakeUp) {
    const auto queue = startedQueue();
    std::promise<void> both;
    std::vector<std::uint64_t> turns;
    onQueue(*queue, [&] {
        // The window that suits both is short: a rounder moment before it would suit the first alone.
        for (const auto delay : {200ms, 440ms}) {
            auto& timer = timers.emplace_back(queue->makeTimer([&] {
                turns.push_back(LinuxWorkQueue::from(*queue).counters().turns);
                if (turns.size() == 2) both.set_value();
            }));
            timer->schedule({delay, 1h, 250ms});
            timer->start();
        }
    });
    both.get_future().wait();
    EXPECT_EQ(turns[0], turns[1]);
}

TEST_F(QueueServiceTest, TimersWhoseLeewaysDoNotOverlapAreNotHeldBack) {
    const auto queue = startedQueue();
    std::promise<void> done;
    std::string order;
    onQueue(*queue, [&] {
        const auto add = [&](std::chrono::milliseconds delay, const char* name) {
            auto& timer = timers.emplace_back(queue->makeTimer([&order, name] { order += name; }));
            timer->schedule({delay, 1h, 5ms});
            timer->start();
        };
        add(100ms, "b");
        add(20ms, "a");
        queue->asyncAfter(60ms, [&] { order += "-"; });
        queue->asyncAfter(150ms, [&] { done.set_value(); });
    });
    done.get_future().wait();
    EXPECT_EQ(order, "a-b");
}

TEST_F(QueueServiceTest, EndingDropsWhatIsPendingAndWhatThatPosts) {
    const auto queue = service->makeSerialQueue("test", QualityOfService::standard);
    struct PostsWhenItGoes {
        std::shared_ptr<WorkQueue> queue;
        std::shared_ptr<int> witness;
        ~PostsWhenItGoes() {
            queue->async([kept = witness] { static_cast<void>(kept); });
        }
    };
    auto witness = std::make_shared<int>(0);
    const std::weak_ptr<int> watched = witness;
    queue->async([kept = std::make_shared<PostsWhenItGoes>(PostsWhenItGoes{queue, std::move(witness)})] {
        static_cast<void>(kept);
    });
    service.reset();
    EXPECT_TRUE(watched.expired());
}

TEST_F(QueueServiceTest, TheCallersSignalMaskIsGivenBack) {
    sigset_t mask{};
    pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    EXPECT_EQ(sigismember(&mask, SIGTERM), 1);
    service.reset();
    pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    EXPECT_EQ(sigismember(&mask, SIGTERM), 0);
}

TEST_F(QueueServiceTest, SourcesUsedOffTheirQueueAbort) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto queue = startedQueue();
    EXPECT_DEATH(static_cast<void>(queue->makeTimer([] {})), "broken promise");
}

}  // namespace
}  // namespace quorvix::linuxos
