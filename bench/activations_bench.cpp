// What activations cost the queues that they pass: commands 4 and 5 on daemonQueue, beyond their log calls and one
// wake-up of another thread, and one recorded activation of 300 processes on its way to the disk.

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <semaphore>
#include <string>
#include <vector>

#include "activation/AppActivation.h"
#include "activation/AppActivationTracker.h"
#include "bench/Bench.h"
#include "perfstats/PerfState.h"
#include "platform/linux/PowerLogStore.h"
#include "platform/linux/QueueService.h"
#include "platform/linux/WallClock.h"
#include "platform/sim/SimPlatform.h"
#include "service/Log.h"
#include "service/MessageHandlers.h"
#include "service/ServiceState.h"

using namespace quorvix;
using namespace quorvix::bench;

namespace {

constexpr int kRounds = 602;
constexpr double kMostUs = 1;
// Until all queues sleep.
constexpr useconds_t kSettleUs = 1000;
constexpr std::int32_t kPid = 412;
constexpr const char* kBundle = "com.norvane.mail";
constexpr std::uint64_t kTime = 790'171'200'000;
constexpr int kRecords = 61;
constexpr std::int32_t kRecordedProcesses = 300;
constexpr double kMostRecordMs = 5;

// What the thread itself used: whom the kernel lets run in between is another's cost.
double threadUs() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) / 1e3;
}

// How long the thread has waited for a processor, others being preferred.
double waitedMs() {
    unsigned long long ranNs = 0, waitedNs = 0;
    std::FILE* const file = std::fopen("/proc/thread-self/schedstat", "re");
    require(file && std::fscanf(file, "%llu %llu", &ranNs, &waitedNs) == 2, "/proc/thread-self/schedstat");
    std::fclose(file);
    return static_cast<double>(waitedNs) / 1e6;
}

// Keeps nothing. With all levels on every line is formatted.
class DiscardingLog final : public SystemLog {
public:
    bool enabled(std::string_view, std::string_view, LogLevel level) noexcept override {
        return allLevels || level == LogLevel::standard;
    }
    void write(std::string_view, std::string_view, LogLevel, std::string_view text) override {
        asm volatile("" : : "r"(text.data()) : "memory");
    }
    std::atomic<bool> allLevels{false};
};

class Client final : public MessageConnection {
public:
    std::int32_t pid() const override { return kPid; }
    void setTargetQueue(const std::shared_ptr<WorkQueue>&) override {}
    void setEventHandler(MessageHandler) override {}
    void resume() override {}
};

sim::SimMessage beginMessage() {
    sim::SimMessage message;
    message.int64("command", 4).int64("pid", kPid).string("bundle-id", kBundle).uint64("startTime", kTime);
    message.uint64("vexStartLatency", kTime).int64("app-activation-state", 1).int64("app-activation-type", 1);
    return message;
}

sim::SimMessage endMessage() {
    sim::SimMessage message;
    message.int64("command", 5).int64("pid", kPid).string("bundle-id", kBundle).uint64("endTime", kTime + 400);
    message.int64("app-activation-state", 1).int64("app-activation-result", 0);
    return message;
}

// The handlers' own calls, one for one.
void logAsBegin() {
    const std::string_view bundle = kBundle;
    const std::int32_t one = 1;
    quorvixLog().debug("QXActivationStats: Noting an app activation begin");
    quorvixLog().info(
        "QXActivationStats: ActivationBegin Command: Pid:%d BundleID:%s StartTime:%llu VEXStartTime:%llu Foreground:%d "
        "ActivationType:%d",
        kPid, std::optional(bundle), kTime, kTime, one, one);
    quorvixLog().info("QXActivationStats: %s[%d] activation begin (%s)", bundle, kPid, "launch");
}

void logAsEnd() {
    const std::string_view bundle = kBundle;
    const std::int32_t one = 1;
    quorvixLog().debug("QXActivationStats: Noting an app activation end");
    quorvixLog().info(
        "QXActivationStats: ActivationEnd Command: Pid:%d BundleID:%s EndTime:%llu Foreground:%d ActivationResult:%d",
        kPid, std::optional(bundle), kTime, one, one);
    quorvixLog().info("QXActivationStats: %s[%d] activation end", bundle, kPid);
}

// Figures of one command, in microseconds.
class Command {
public:
    explicit Command(const char* name) : name_(name) {}

    void add(double measured, double floor) {
        measured_.push_back(measured);
        floor_.push_back(floor);
        beyond_.push_back(measured - floor);
    }
    void print() const {
        const double beyond = median(beyond_);
        std::printf(
            "%s: measured %.2f us, floor %.2f us, beyond it %.2f us (goal <= %.4g): %s  [%zu rounds, %.2f..%.2f]\n",
            name_, median(measured_), median(floor_), beyond, kMostUs, verdict(Goal::atMost, beyond, kMostUs),
            beyond_.size(), quantile(beyond_, 0.1), quantile(beyond_, 0.9));
        std::fflush(stdout);
    }

private:
    const char* name_;
    std::vector<double> measured_;
    std::vector<double> floor_;
    std::vector<double> beyond_;
};

// A simulated device but for its queues, its wall clock and what a measurement replaces.
struct Device {
    explicit Device(const char* name) : folder(name) {}

    sim::SimPlatform simulated;
    linuxos::LinuxQueueService queues;
    linuxos::LinuxWallClock wallClock;
    DiscardingLog log;
    std::filesystem::path folder;
    linuxos::PowerLogStore store{log, {.folder = folder.string()}};

    Platform platformWith(PowerLog& powerLog) {
        sim::SimPlatform& s = simulated;
        return {.tickClock = s.tickClock,
                .wallClock = wallClock,
                .queues = queues,
                .messages = s.messages,
                .regions = s.regions,
                .notifications = s.notifications,
                .preferences = s.preferences,
                .propertyLists = s.propertyLists,
                .capabilities = s.capabilities,
                .log = log,
                .counters = s.counters,
                .processes = s.processes,
                .host = s.host,
                .files = s.files,
                .libraries = s.libraries,
                .json = s.json,
                .random = s.random,
                .renderServer = s.renderServer,
                .lifecycle = s.lifecycle,
                .state = s.state,
                .powerLog = powerLog,
                .signposts = s.signposts,
                .console = s.console,
                .systemInformation = s.systemInformation,
                .processMemory = s.processMemory,
                .kernelMemory = s.kernelMemory};
    }
    Platform withSimulatedLog = platformWith(simulated.powerLog);
    Platform withStore = platformWith(store);
};

// Runs on a queue and waits for it.
template <class Body>
void runOn(WorkQueue& queue, Body body) {
    std::binary_semaphore done{0};
    queue.async([&] {
        body();
        done.release();
    });
    done.acquire();
}

// Until the tracker has done its step, and until all queues sleep again: a queue that is awake needs no wake-up.
void waitForTracker(std::uint64_t openActivations) {
    const auto& counters = AppActivationTracker::sharedInstance().counters();
    const double deadline = nowNs() + 10e9;
    while (counters.openActivations != openActivations) {
        require(nowNs() < deadline, "the tracker takes its step");
        usleep(100);
    }
    usleep(kSettleUs);
}

// On daemonQueue.
class Handlers {
public:
    explicit Handlers(WorkQueue& other) : other_(other) {}

    void measure(const char* beginName, const char* endName) {
        Command begin(beginName);
        Command end(endName);
        for (int round = 0; round < kRounds; ++round) {
            // Each goes first in every other round: what comes second finds more in the caches.
            compare(begin, round % 2 == 0, logAsBegin, begin_, 1);
            compare(end, round % 2 == 0, logAsEnd, end_, 0);
        }
        begin.print();
        end.print();
    }

private:
    void compare(Command& command, bool floorFirst, void (*log)(), const sim::SimMessage& message,
                 std::uint64_t openAfterwards) {
        const double before = floorFirst ? floorUs(log) : 0;
        const double measured = handledUs(message, openAfterwards);
        command.add(measured, floorFirst ? before : floorUs(log));
    }
    double floorUs(void (*log)()) {
        const double begin = threadUs();
        log();
        other_.async([] {});
        const double duration = threadUs() - begin;
        usleep(kSettleUs);
        return duration;
    }
    double handledUs(const sim::SimMessage& message, std::uint64_t openAfterwards) {
        const std::vector<MessageEntry> entries = message.entries();
        const MessageDictionary dictionary(entries, ObjectId{1});
        const double begin = threadUs();
        handleClientMessage(client_, dictionary);
        const double duration = threadUs() - begin;
        waitForTracker(openAfterwards);
        return duration;
    }

    WorkQueue& other_;
    const std::shared_ptr<MessageConnection> client_ = std::make_shared<Client>();
    const sim::SimMessage begin_ = beginMessage();
    const sim::SimMessage end_ = endMessage();
};

void measureHandlers(Device& device) {
    const auto other = device.queues.makeSerialQueue("other", QualityOfService::userInitiated);
    serviceState().daemonQueue = device.queues.makeSerialQueue("daemon", QualityOfService::userInitiated);
    device.queues.start();
    runOn(daemonQueue(), [&] {
        (void)AppActivationTracker::sharedInstance();
        Handlers handlers(*other);
        handlers.measure("command 4, beyond its log calls and a wake-up",
                         "command 5, beyond its log calls and a wake-up");
        device.log.allLevels = true;
        handlers.measure("command 4, every log line formatted", "command 5, every log line formatted");
        device.log.allLevels = false;
    });
}

// An activation in which every process used more than the threshold and has a name that was not sent: as large as one
// of so many processes can be.
std::shared_ptr<AppActivation> recordedActivation(sim::SimPlatform& device, std::uint64_t time) {
    device.processes.tasks.clear();
    for (std::int32_t pid = kPid; pid < kPid + kRecordedProcesses; ++pid) {
        device.processes.tasks.push_back({.pid = pid, .name = "process " + std::to_string(pid)});
    }
    auto record = AppActivation::initWithStatisticsType(7, kPid, kBundle, time, time, 1, 1);
    require(record != nullptr, "an activation");
    for (auto& task : device.processes.tasks) task.usage.userTime = std::uint64_t{24'000} * 1000;
    record->activationEndedWithResult(0, time + 400);
    perfState().largestTrackedPid = -1;
    return record;
}

std::uint64_t storedActivations(const linuxos::PowerLogStore& store) {
    const JsonObject counters = store.selfCounters();
    for (const auto& [name, value] : counters.members()) {
        if (name == "storedActivations") return std::get<std::uint64_t>(value.content());
    }
    return 0;
}

void measureRecords(Device& device) {
    setPlatform(&device.withStore);
    const auto output = device.queues.makeSerialQueue("logoutput", QualityOfService::utility);
    std::vector<double> elapsed;
    std::vector<double> used;
    std::vector<double> withoutWaiting;
    for (std::uint64_t i = 0; i < kRecords; ++i) {
        const auto record = recordedActivation(device.simulated, activationTimeNow() - 1000 * (kRecords - i));
        runOn(*output, [&] {
            const double waitedBefore = waitedMs();
            const double begin = nowNs();
            const double usedBefore = threadUs();
            record->logAppActivationData(kOutputWattrel);
            used.push_back((threadUs() - usedBefore) / 1e3);
            elapsed.push_back((nowNs() - begin) / 1e6);
            withoutWaiting.push_back(elapsed.back() - (waitedMs() - waitedBefore));
        });
    }
    require(storedActivations(device.store) == kRecords, "every activation is stored");
    printAbsolute("one activation of 300 processes to disk", "ms", median(elapsed), kMostRecordMs);
    const auto printSpread = [](const char* what, const std::vector<double>& values) {
        std::printf("  %s: median %.2f ms, nine of ten within %.2f ms, all within %.2f ms\n", what, median(values),
                    quantile(values, 0.9), quantile(values, 1));
    };
    printSpread("all of it", elapsed);
    printSpread("without waiting for a processor", withoutWaiting);
    printSpread("its own processor time", used);
}

}  // namespace

int main() {
    pinToOneCpu();
    // Not below /tmp, which is memory on some systems.
    std::string folder = "/var/tmp/quorvix-bench-XXXXXX";
    require(mkdtemp(folder.data()) != nullptr, "mkdtemp");
    // Never destroyed: its queues run to the end.
    auto& device = *new Device(folder.c_str());
    setPlatform(&device.withSimulatedLog);
    measureHandlers(device);
    measureRecords(device);
    std::filesystem::remove_all(folder);
    std::fflush(stdout);
    _exit(0);
}
