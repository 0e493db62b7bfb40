#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "platform/linux/QueueService.h"

// Descriptors on a queue. Everything happens on the queue's thread, and a round ends before posted work runs: so each
// test ends by posting, and needs no clock.

namespace quorvix::linuxos {
namespace {

// A connected pair of sockets: the queue watches one end, the test writes to the other.
struct Pair {
    Pair() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends.data()), 0); }
    ~Pair() {
        closeFar();
        ::close(ends[0]);
    }
    Pair(const Pair&) = delete;
    Pair& operator=(const Pair&) = delete;

    int near() const { return ends[0]; }
    void write(const std::string& bytes) const {
        EXPECT_EQ(::write(ends[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }
    char readOne() const {
        char byte = 0;
        EXPECT_EQ(::read(ends[0], &byte, 1), 1);
        return byte;
    }
    void closeFar() {
        if (ends[1] >= 0) ::close(ends[1]);
        ends[1] = -1;
    }

    std::array<int, 2> ends{-1, -1};
};

class DescriptorWatchTest : public testing::Test {
protected:
    void TearDown() override { service.reset(); }
    void onQueue(const Work& work) {
        std::promise<void> done;
        queue->async([&] {
            work();
            done.set_value();
        });
        done.get_future().wait();
    }
    // Returns when the queue has had `rounds` rounds of its descriptors.
    void passRounds(int rounds) {
        for (int round = 0; round <= rounds; ++round) onQueue([] {});
    }
    std::unique_ptr<DescriptorWatch> watch(const Pair& pair, std::function<void(std::uint32_t)> handler,
                                           std::uint32_t events = EPOLLIN) {
        auto made = LinuxWorkQueue::from(*queue).watchDescriptor(pair.near(), events, std::move(handler));
        EXPECT_NE(made, nullptr);
        return made;
    }

    // Before the service, so that they go after its threads have ended; and no descriptor closes under its watch.
    Pair first;
    Pair second;
    Pair silent;
    std::array<std::unique_ptr<DescriptorWatch>, 3> watches;
    std::string log;
    std::unique_ptr<LinuxQueueService> service = std::make_unique<LinuxQueueService>();
    std::shared_ptr<WorkQueue> queue = service->makeSerialQueue("test", QualityOfService::standard);
};

TEST_F(DescriptorWatchTest, DeliversNothingBeforeTheStart) {
    std::promise<std::uint32_t> events;
    watches[0] = watch(first, [&](std::uint32_t reported) {
        first.readOne();
        events.set_value(reported);
    });
    first.write("a");
    auto reported = events.get_future();
    EXPECT_EQ(reported.wait_for(std::chrono::milliseconds(10)), std::future_status::timeout);
    service->start();
    EXPECT_EQ(reported.get(), std::uint32_t{EPOLLIN});
}

TEST_F(DescriptorWatchTest, RunsOnItsQueue) {
    first.write("a");
    std::promise<bool> there;
    watches[0] = watch(first, [&](std::uint32_t) {
        first.readOne();
        there.set_value(LinuxWorkQueue::from(*queue).onQueue());
    });
    service->start();
    EXPECT_TRUE(there.get_future().get());
    EXPECT_FALSE(LinuxWorkQueue::from(*queue).onQueue());
}

TEST_F(DescriptorWatchTest, EveryReadyDescriptorHasItsTurnBeforeAnyHasASecond) {
    first.write("bbbb");
    second.write("qq");
    watches[0] = watch(first, [&](std::uint32_t) { log += first.readOne(); });
    watches[1] = watch(second, [&](std::uint32_t) { log += second.readOne(); });
    service->start();
    passRounds(4);
    ASSERT_EQ(log.size(), 6u);
    EXPECT_NE(log[0], log[1]);
    EXPECT_NE(log[2], log[3]);
    EXPECT_EQ(log.substr(4), "bb");
}

TEST_F(DescriptorWatchTest, MoreDescriptorsThanOneRoundHoldsAllHaveTheirTurn) {
    constexpr std::size_t kCount = 200;
    std::vector<std::unique_ptr<Pair>> pairs;
    std::vector<std::unique_ptr<DescriptorWatch>> many;
    std::vector<int> calls(kCount, 0);
    for (std::size_t index = 0; index < kCount; ++index) {
        pairs.push_back(std::make_unique<Pair>());
        pairs.back()->write("x");  // Never read: always ready.
        many.push_back(watch(*pairs.back(), [&calls, index](std::uint32_t) { ++calls[index]; }));
    }
    service->start();
    passRounds(40);
    onQueue([&] { many.clear(); });
    const auto [fewest, most] = std::minmax_element(calls.begin(), calls.end());
    EXPECT_GE(*fewest, 1);
    EXPECT_LE(*most - *fewest, 1);
}

TEST_F(DescriptorWatchTest, AReadyDescriptorDoesNotHoldBackPostedWorkOrTimers) {
    first.write("x");
    watches[0] = watch(first, [](std::uint32_t) {});
    std::promise<void> fired;
    queue->asyncAfter(std::chrono::milliseconds(1), [&] { fired.set_value(); });
    service->start();
    passRounds(3);
    fired.get_future().wait();
}

TEST_F(DescriptorWatchTest, AHandlerMayDestroyItsOwnWatch) {
    first.write("aa");
    watches[0] = watch(first, [this, kept = std::string("kept")](std::uint32_t) {
        watches[0].reset();
        log += first.readOne() + kept;
    });
    service->start();
    passRounds(3);
    EXPECT_EQ(log, "akept");
}

TEST_F(DescriptorWatchTest, AnEventReportedForADestroyedWatchIsNotDelivered) {
    first.write("a");
    second.write("b");
    // Both are reported in one round; whichever comes first destroys both.
    const auto destroyBoth = [this](std::uint32_t) {
        log += "x";
        watches[0].reset();
        watches[1].reset();
    };
    watches[0] = watch(first, destroyBoth);
    watches[1] = watch(second, destroyBoth);
    service->start();
    passRounds(3);
    EXPECT_EQ(log, "x");
}

TEST_F(DescriptorWatchTest, AStaleEventDoesNotReachTheWatchThatTookItsPlace) {
    first.write("a");
    second.write("b");
    const auto replaceBoth = [&](std::uint32_t) {
        log += "x";
        watches[0].reset();
        watches[1].reset();
        // Takes the place that the last one left; nothing is ever written to it.
        watches[2] = watch(silent, [&](std::uint32_t) { log += "stale"; });
    };
    watches[0] = watch(first, replaceBoth);
    watches[1] = watch(second, replaceBoth);
    service->start();
    passRounds(3);
    EXPECT_EQ(log, "x");
}

TEST_F(DescriptorWatchTest, APausedWatchIsSilentUntilItIsResumed) {
    first.write("a");
    watches[0] = watch(
        first, [&](std::uint32_t) { log += first.readOne(); }, 0);
    service->start();
    passRounds(2);
    EXPECT_EQ(log, "");
    onQueue([&] { watches[0]->setEvents(EPOLLIN); });
    passRounds(2);
    EXPECT_EQ(log, "a");
    onQueue([&] { watches[0]->setEvents(0); });
    first.write("b");
    passRounds(2);
    EXPECT_EQ(log, "a");
    onQueue([&] { watches[0]->setEvents(EPOLLIN); });
    passRounds(2);
    EXPECT_EQ(log, "ab");
}

TEST_F(DescriptorWatchTest, AHangUpOfAPausedWatchNeitherIsDeliveredNorKeepsTheQueueAwake) {
    watches[0] = watch(
        first, [&](std::uint32_t) { log += "hang-up"; }, 0);
    first.closeFar();
    service->start();
    passRounds(2);
    const auto& linuxQueue = LinuxWorkQueue::from(*queue);
    const std::uint64_t before = linuxQueue.counters().turns;
    // Each is one turn; a queue that is kept awake takes thousands meanwhile.
    for (int pause = 0; pause < 10; ++pause) {
        ::usleep(1000);
        onQueue([] {});
    }
    EXPECT_LE(linuxQueue.counters().turns, before + 20);
    EXPECT_EQ(log, "");
}

TEST_F(DescriptorWatchTest, AHangUpIsReported) {
    std::promise<std::uint32_t> events;
    watches[0] = watch(first, [&](std::uint32_t reported) {
        watches[0].reset();
        events.set_value(reported);
    });
    first.closeFar();
    service->start();
    EXPECT_EQ(events.get_future().get() & EPOLLHUP, std::uint32_t{EPOLLHUP});
}

TEST_F(DescriptorWatchTest, ADescriptorThatCannotBeWatchedIsRefused) {
    const int file = ::open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_GE(file, 0);
    errno = 0;
    EXPECT_EQ(LinuxWorkQueue::from(*queue).watchDescriptor(file, EPOLLIN, [](std::uint32_t) {}), nullptr);
    EXPECT_EQ(errno, EPERM);
    ::close(file);
}

}  // namespace
}  // namespace quorvix::linuxos
