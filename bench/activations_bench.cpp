// What activations cost the queues that they pass: commands 4 and 5 on daemonQueue, beyond their log calls and one
// wake-up of another thread, and one recorded activation of 300 processes on its way to the disk.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <semaphore>
#include <string>
#include <system_error>
#include <vector>

#include "activation/AppActivation.h"
#include "activation/AppActivationTracker.h"
#include "bench/Bench.h"
#include "perfstats/PerfState.h"
#include "platform/linux/Descriptor.h"
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
constexpr int kRecords = 200;
// Between activations: more than a person begins.
constexpr useconds_t kPauseUs = 20'000;
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

// One sender may have so many time-outs pending only: each measurement has a client of its own.
class Client final : public MessageConnection {
public:
    explicit Client(std::int32_t pid) : pid_(pid) {}
    std::int32_t pid() const override { return pid_; }
    void setTargetQueue(const std::shared_ptr<WorkQueue>&) override {}
    void setEventHandler(MessageHandler) override {}
    void resume() override {}

private:
    const std::int32_t pid_;
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
    Handlers(WorkQueue& other, std::int32_t client) : other_(other), client_(std::make_shared<Client>(client)) {}

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
    const std::shared_ptr<MessageConnection> client_;
    const sim::SimMessage begin_ = beginMessage();
    const sim::SimMessage end_ = endMessage();
};

void measureHandlers(Device& device) {
    const auto other = device.queues.makeSerialQueue("other", QualityOfService::userInitiated);
    serviceState().daemonQueue = device.queues.makeSerialQueue("daemon", QualityOfService::userInitiated);
    device.queues.start();
    runOn(daemonQueue(), [&] {
        (void)AppActivationTracker::sharedInstance();
        Handlers(*other, kPid)
            .measure("command 4, beyond its log calls and a wake-up", "command 5, beyond its log calls and a wake-up");
        device.log.allLevels = true;
        Handlers(*other, kPid + 1)
            .measure("command 4, every log line formatted", "command 5, every log line formatted");
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

struct Milliseconds {
    void print(const char* what) const {
        std::printf("  %s: median %.2f ms, p90 %.2f ms, p99 %.2f ms, worst %.2f ms\n", what, median(values),
                    quantile(values, 0.9), quantile(values, 0.99), quantile(values, 1));
    }
    std::vector<double> values = {};
};

std::uintmax_t journalBytes(const Device& device) {
    return std::filesystem::file_size(device.folder / "wattrel.db-wal");
}

// The same number of bytes at the end of a file: what storing them can't do without, and that with waiting for the
// disk, which the power log leaves to another thread.
class BareFile {
public:
    BareFile(const Device& device, std::size_t bytes)
        : bytes_(bytes, 'x'),
          file_(open((device.folder / "bare").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600)) {}

    void measure() {
        const double begin = nowNs();
        require(write(file_.get(), bytes_.data(), bytes_.size()) == static_cast<ssize_t>(bytes_.size()), "write");
        written.values.push_back((nowNs() - begin) / 1e6);
        require(fdatasync(file_.get()) == 0, "fdatasync");
        synchronised.values.push_back((nowNs() - begin) / 1e6);
    }
    std::size_t size() const { return bytes_.size(); }
    Milliseconds written;
    Milliseconds synchronised;

private:
    std::string bytes_;
    linuxos::Descriptor file_;
};

// On the output queue, so long after one another.
void measureRecords(Device& device, WorkQueue& output, BareFile& bare, const char* name, useconds_t pauseUs) {
    Milliseconds elapsed, used, withoutWaiting;
    const std::uint64_t stored = storedActivations(device.store);
    for (std::uint64_t i = 0; i < kRecords; ++i) {
        const auto record = recordedActivation(device.simulated, activationTimeNow() - 1000 * (kRecords - i));
        runOn(output, [&] {
            const double waitedBefore = waitedMs();
            const double begin = nowNs();
            const double usedBefore = threadUs();
            record->logAppActivationData(kOutputWattrel);
            used.values.push_back((threadUs() - usedBefore) / 1e3);
            elapsed.values.push_back((nowNs() - begin) / 1e6);
            withoutWaiting.values.push_back(elapsed.values.back() - (waitedMs() - waitedBefore));
            if (pauseUs != 0) bare.measure();
        });
        usleep(pauseUs);
    }
    require(storedActivations(device.store) == stored + kRecords, "every activation is stored");
    printAbsolute(name, "ms", median(elapsed.values), kMostRecordMs);
    printAbsolute("  its p90", "ms", quantile(elapsed.values, 0.9), kMostRecordMs);
    printAbsolute("  its p99", "ms", quantile(elapsed.values, 0.99), kMostRecordMs);
    elapsed.print("all of it");
    withoutWaiting.print("without waiting for a processor");
    used.print("its own processor time");
}

void measureRecords(Device& device) {
    setPlatform(&device.withStore);
    const auto output = device.queues.makeSerialQueue("logoutput", QualityOfService::utility);
    const auto store = [&] {
        const auto record = recordedActivation(device.simulated, activationTimeNow());
        runOn(*output, [&] { record->logAppActivationData(kOutputWattrel); });
    };
    store();
    const std::uintmax_t before = journalBytes(device);
    store();
    BareFile bare(device, journalBytes(device) - before);
    measureRecords(device, *output, bare, "one activation of 300 processes to disk", kPauseUs);
    std::printf("  beside them, %zu bytes to the end of a file:\n", bare.size());
    bare.written.print("written");
    bare.synchronised.print("written and synchronised");
    measureRecords(device, *output, bare, "one activation to disk, each right after the other", 0);
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
    // The store's thread may still write there.
    std::error_code error;
    for (int attempt = 0; attempt < 50 && std::filesystem::exists(folder); ++attempt) {
        std::filesystem::remove_all(folder, error);
        if (error) usleep(100'000);
    }
    std::fflush(stdout);
    _exit(0);
}
