#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "activation/ActivationState.h"
#include "activation/AppActivationTracker.h"
#include "perfstats/PerfState.h"
#include "platform/linux/PowerLogStore.h"
#include "platform/linux/QueueService.h"
#include "platform/linux/Sqlite.h"
#include "platform/linux/WallClock.h"
#include "platform/sim/SimPlatform.h"
#include "service/ServiceState.h"
#include "service/Settings.h"
#include "tests/support/TemporaryFolder.h"

namespace quorvix::linuxos {
namespace {

using namespace std::chrono_literals;

// A real queue whose delayed work is due 1500 times as soon: a begin without an end is given up after 40 ms.
class HastyQueue final : public WorkQueue {
public:
    explicit HastyQueue(std::shared_ptr<WorkQueue> queue) : queue_(std::move(queue)) {}
    void async(Work work) override { queue_->async(std::move(work)); }
    void asyncAfter(std::chrono::nanoseconds delay, Work work) override {
        queue_->asyncAfter(delay / 1500, std::move(work));
    }
    void asyncAt(WallTime time, Work work) override { queue_->asyncAt(time, std::move(work)); }
    std::unique_ptr<RepeatingTimer> makeTimer(Work handler) override { return queue_->makeTimer(std::move(handler)); }
    const std::string& label() const override { return queue_->label(); }

private:
    const std::shared_ptr<WorkQueue> queue_;
};

class HastyQueues final : public QueueService {
public:
    std::shared_ptr<WorkQueue> makeSerialQueue(std::string_view label, QualityOfService quality) override {
        return std::make_shared<HastyQueue>(queues_.makeSerialQueue(label, quality));
    }
    [[noreturn]] void runMain() override { queues_.runMain(); }
    void start() { queues_.start(); }

private:
    LinuxQueueService queues_;
};

// Every line is formatted on the queue that says it; the tracker's own are counted.
class CountingLog final : public SystemLog {
public:
    bool enabled(std::string_view, std::string_view, LogLevel) noexcept override { return true; }
    void write(std::string_view, std::string_view, LogLevel, std::string_view text) override {
        if (text.find("An entry already exists") != text.npos) ++doubled;
        if (text.find("Did not find an end call entry") != text.npos) ++timedOut;
        if (text.find("Did not find an existing entry") != text.npos) ++unmatched;
    }
    std::atomic<int> doubled{0};
    std::atomic<int> timedOut{0};
    std::atomic<int> unmatched{0};
};

// A simulated device but for the queues, the wall clock and the power log.
struct World {
    World() {
        resetServiceState();
        for (std::int32_t pid = 1; pid <= 40; ++pid) {
            device.processes.tasks.push_back({.pid = pid, .name = "process " + std::to_string(pid)});
        }
        setPlatform(&services);
        settings().maxActivationCount = 100'000;
    }
    ~World() {
        queues.reset();
        resetActivationState();
        resetPerfState();
        resetServiceState();
        setPlatform(nullptr);
    }

    tests::TemporaryFolder folder;
    CountingLog log;
    sim::SimPlatform device;
    std::unique_ptr<HastyQueues> queues = std::make_unique<HastyQueues>();
    LinuxWallClock wallClock;
    PowerLogStore powerLog{log, {.folder = folder.path(), .limits = {.checkpointPages = 50}}};
    Platform services{.tickClock = device.tickClock,
                      .wallClock = wallClock,
                      .queues = *queues,
                      .messages = device.messages,
                      .regions = device.regions,
                      .notifications = device.notifications,
                      .preferences = device.preferences,
                      .propertyLists = device.propertyLists,
                      .capabilities = device.capabilities,
                      .log = log,
                      .counters = device.counters,
                      .processes = device.processes,
                      .host = device.host,
                      .files = device.files,
                      .libraries = device.libraries,
                      .json = device.json,
                      .random = device.random,
                      .renderServer = device.renderServer,
                      .lifecycle = device.lifecycle,
                      .state = device.state,
                      .powerLog = powerLog,
                      .signposts = device.signposts,
                      .console = device.console,
                      .systemInformation = device.systemInformation,
                      .processMemory = device.processMemory,
                      .kernelMemory = device.kernelMemory};
};

std::uint64_t counter(const PowerLogStore& store, std::string_view wanted) {
    const JsonObject counters = store.selfCounters();
    for (const auto& [name, value] : counters.members()) {
        if (name == wanted) return std::get<std::uint64_t>(value.content());
    }
    return 0;
}

template <class Condition>
bool reached(Condition condition) {
    const auto deadline = std::chrono::steady_clock::now() + 60s;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(5ms);
    }
    return true;
}

constexpr std::uint64_t kTime = 790'171'200'000;

// A queue of messages, the activation queue with its time-outs, the output queue and the store's own thread, all at
// work at once. Nothing that goes in is lost or counted twice.
TEST(TrackerQueuesTest, BeginsEndsAndTimeOutsOnRealQueuesAddUp) {
    constexpr int kBegins = 1200;
    World world;
    const auto messages = world.queues->makeSerialQueue("messages", QualityOfService::userInitiated);
    world.queues->start();
    const auto& counters = AppActivationTracker::sharedInstance().counters();
    std::atomic<int> ends{0};
    std::atomic<int> handled{0};
    for (int i = 0; i < kBegins; ++i) {
        messages->async([&, i] {
            auto& tracker = AppActivationTracker::sharedInstance();
            const std::int32_t pid = 1 + i % 300;
            const std::string bundle = "com.example.app" + std::to_string(i % 7);
            const auto end = [&](std::int32_t of) {
                ++ends;
                tracker.endAppActivationTrackingForPID(of, bundle, kTime + 400, 1, 0);
            };
            tracker.beginAppActivationTrackingForPID(pid, bundle, kTime, kTime, 1, i % 2);
            if (i % 10 == 0) tracker.beginAppActivationTrackingForPID(pid, bundle, kTime, kTime, 1, 1);
            if (i % 3 != 0) end(pid);
            if (i % 12 == 0) end(pid + 1000);
            ++handled;
        });
        // Long enough for time-outs to fall between begins; and no faster than this machine stores them, since what the
        // store is too far behind with is dropped.
        if (i % 100 == 99) {
            std::this_thread::sleep_for(20ms);
            ASSERT_TRUE(reached([&] { return handled == i + 1; }));
            ASSERT_TRUE(
                reached([&] { return counter(world.powerLog, "storedActivations") == static_cast<unsigned>(ends); }));
        }
    }
    ASSERT_TRUE(reached([&] { return handled == kBegins; }));
    ASSERT_EQ(ends, kBegins * 2 / 3 + kBegins / 12);
    ASSERT_TRUE(reached([&] { return counter(world.powerLog, "storedActivations") == static_cast<unsigned>(ends); }));
    ASSERT_TRUE(reached([&] { return counters.openActivations == 0; }));

    EXPECT_EQ(counters.droppedSteps + counters.droppedBegins + counters.droppedOutputs, 0u);
    EXPECT_GE(world.log.doubled, 1);
    EXPECT_GE(world.log.timedOut, 1);
    EXPECT_GE(world.log.unmatched, kBegins / 12);
    // What was begun either ended or timed out.
    EXPECT_EQ(kBegins + kBegins / 10 - world.log.doubled - world.log.timedOut, ends - world.log.unmatched);
    SqliteDatabase database(world.folder.path("wattrel.db"));
    EXPECT_EQ(database.number("SELECT count(*) FROM ActivationData"), ends);
    EXPECT_EQ(database.number("SELECT count(*) FROM ActivationData WHERE ActivationResult = 32"), world.log.unmatched);
    EXPECT_TRUE(reached([&] { return counter(world.powerLog, "checkpoints") > 0; }));
}

}  // namespace
}  // namespace quorvix::linuxos
