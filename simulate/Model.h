#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "platform/PropertyList.h"
#include "platform/sim/SimKernelMemory.h"
#include "platform/sim/SimPlatform.h"
#include "simulate/ModelDevice.h"
#include "simulate/Trace.h"

namespace quorvix::simulate {

// The daemon's rules a second time, as plainly as they can be written: nothing here is fast, split into services or
// shared with the daemon. Works on its own virtual time, which moves like the daemon's, and says every effect to the
// replay, which compares.
//
// One object is one process of the daemon: a restart makes a new one.
class Model {
public:
    Model(ModelDevice& device, Replay& replay, bool debugLines);
    Model(const Model&) = delete;
    Model& operator=(const Model&) = delete;

    // The start up to the moment when the main thread is given away. Throws sim::SimulatedExit where everything is
    // switched off.
    void start();

    // --- what the daemon is told, at the moment at which it is told -----------------------------------------------
    void connect(const std::shared_ptr<ModelConnection>& connection);
    void arrive(const std::shared_ptr<ModelConnection>& connection, ModelEvent event);
    void listenerError(ModelEvent event);
    void notify(std::string_view name);

    // --- what can be compared at any time --------------------------------------------------------------------------
    struct Process {
        std::int32_t pid = 0;
        std::string path;
        std::string name;
        std::shared_ptr<ModelRegion> region;
        std::uint64_t mapping = 0;  // its number
    };
    using ProcessPointer = std::shared_ptr<Process>;

    const std::vector<ProcessPointer>& watched() const { return watched_; }
    const std::map<std::string, std::uint32_t>& appCredits() const { return appCredits_; }
    std::int32_t maxDailyLogs() const { return maxDailyLogs_; }
    std::int32_t dailyLogCredits() const { return dailyLogCredits_; }
    bool fenceCapturePending() const { return fenceCapturePending_; }
    std::uint64_t mappingsHeld() const;
    std::uint64_t openActivations() const { return activations_.size(); }
    std::uint32_t outputsWaiting() const { return outputsWaiting_; }
    std::uint32_t activationsRecorded() const { return activationsRecorded_; }
    bool listenerGone() const { return listenerGone_; }
    bool hangTracing() const { return hangTracing_; }
    bool memoryLogging() const { return memoryLogging_; }
    bool activationLogging() const { return activationLogging_; }
    std::uint64_t reportsSinceReset() const { return reportsSinceReset_; }
    std::uint64_t lateReportsSinceReset() const { return lateReportsSinceReset_; }

private:
    struct Fence {
        std::int64_t name = 0;
        std::int64_t start = 0;
        std::int64_t end = 0;
    };
    struct Hang {
        std::string name;
        std::uint64_t thread = 0;
        std::uint64_t start = 0;
        std::uint64_t end = 0;
    };
    struct Activation {
        std::uint8_t statistics = 0;
        std::uint8_t startState = 0;
        std::uint8_t result = 0;
        std::uint8_t type = 0;
        std::int32_t pid = 0;
        std::uint32_t wallTime = 0;
        std::uint32_t startLatency = 0;
        std::uint32_t endLatency = 0;
        std::int64_t uptime = 0;
        std::optional<std::string> processName;
        std::string bundle;
        std::uint64_t id = 0;
        std::uint64_t start = 0;
        std::uint64_t flags = 0;
        ModelSnapshot startSnapshot;
        ModelSnapshot endSnapshot;
    };
    using ActivationPointer = std::shared_ptr<Activation>;
    struct ActivationBegin {
        std::int32_t pid;
        std::string bundle;
        std::uint64_t time;
        std::uint64_t sent;
        std::int32_t state;
        std::int32_t type;
    };
    struct ActivationEnd {
        std::int32_t pid;
        std::string bundle;
        std::uint64_t time;
        std::int32_t state;
        std::int32_t result;
    };

    // Model.cpp
    void log(const std::string& text) { replay_.expect(Op::logLine, "D:" + text); }
    void info(const std::string& text) { replay_.expect(Op::logLine, "I:" + text); }
    void debug(const std::string& text) {
        if (debugLines_) replay_.expect(Op::logLine, "d:" + text);
    }
    Work onQueue(QueueName queue, Work work);
    void later(QueueName queue, std::chrono::nanoseconds delay, Work work);
    void post(QueueName queue, Work work);
    std::uint64_t ticks() { return device_.tickClock.now(); }
    std::string stamp();

    // ModelService.cpp
    void makeDirectories();
    void checkPreferences();
    void refresh();
    std::optional<PropertyListValue> preference(std::string_view key, std::string_view domain = "com.norvane.da");
    void registerFor(const std::string& name, const char* queue);
    void scheduleMemoryTimer();
    void postConnectionEvent(const std::shared_ptr<ModelConnection>& connection, ModelEvent event);
    void connectionEvent(const std::shared_ptr<ModelConnection>& connection, const ModelEvent& event);
    void message(std::int32_t pid, const ModelMessage& message, std::uint64_t id);
    void startWatching(std::int32_t pid, const ModelMessage& message);
    void hangDetected(std::int32_t pid, const ModelMessage& message);
    void fenceBegin(const ModelMessage& message);
    void fenceEnd(const ModelMessage& message);
    void fenceBlown(const ModelMessage& message);
    void activationBegin(const ModelMessage& message);
    void activationEnd(const ModelMessage& message);

    // ModelHangs.cpp
    ProcessPointer processFor(std::int32_t pid) const;
    ProcessPointer startWatchingPid(std::int32_t pid, const std::shared_ptr<ModelRegion>& region,
                                    std::uint64_t mapping);
    void stopWatchingPid(std::int32_t pid);
    void stopWatchingAll();
    void release(ProcessPointer& process);
    void hangCheckTick();
    // False: the region faulted.
    bool checkProcess(const ProcessPointer& process, std::uint64_t now);
    void recordHang(const ProcessPointer& process, const Hang& hang, bool save);
    void setDisplay(const std::optional<std::string>& text);
    bool traceLibraryUsable();
    bool saveReport(const Process& process, const Hang& hang, const std::string& reason);
    void deductCredits(const Process& process);
    void setMaxDailyLogs(std::int32_t limit);

    // ModelActivations.cpp
    void makeTracker();
    void armMidnight();
    void beginStep(const ActivationBegin& begin);
    void beginTimeout(const ActivationBegin& begin);
    void endStep(const ActivationEnd& end);
    ActivationPointer makeActivation(std::uint8_t statistics, const ActivationBegin& begin);
    void endActivation(Activation& activation, std::uint8_t result, std::uint64_t time);
    std::uint64_t wallMilliseconds();
    ModelSnapshot takeSnapshot(std::uint8_t options);
    using Ranked = std::vector<std::pair<std::int64_t, std::string>>;
    void insertFlag(std::uint64_t& flags, std::uint64_t value, int index);
    // Sorted by CPU time, descending.
    std::optional<std::vector<ModelDifference>> differences(const ModelSnapshot& start, const ModelSnapshot& end);
    ResourceUsage usageDifference(const ResourceUsage& start, const ResourceUsage& end, std::int32_t pid);
    void powerLog(Activation& activation);
    void expectLineLike(std::string_view beginning);
    void expectDictionary(const Record& event, std::string_view title, const Ranked& entries);
    void numberEntries(const Ranked& ordered, std::string_view text, Ranked& numbered);
    void expectLaunchLine(const std::string& bundle);
    void launchBegin(std::int32_t pid, const std::string& bundle);
    void launchEnd(std::int32_t pid, const std::string& bundle, bool valid);

    // ModelMemory.cpp
    void memorySnapshot();
    std::string memoryReport(const std::string& date);

    ModelDevice& device_;
    Replay& replay_;
    const bool debugLines_;
    double msPerTick_ = 0;
    std::map<QueueName, std::shared_ptr<sim::SimWorkQueue>> queues_;

    // After its last event it hears of no connection.
    bool listenerGone_ = false;
    bool internalBuild_ = false;
    bool hangTracing_ = false;
    bool memoryLogging_ = false;
    bool activationLogging_ = false;
    bool swivex_ = false;
    bool hud_ = false;
    std::uint32_t memoryInterval_ = 3600;
    std::uint64_t reportPeriod_ = 86400000000u;
    std::uint32_t maxActivations_ = 200;
    double cpuThreshold_ = 50.0;
    std::unique_ptr<RepeatingTimer> hangTimer_;
    std::unique_ptr<RepeatingTimer> memoryTimer_;
    // Notifications that are heard.
    std::set<std::string, std::less<>> registered_;
    std::uint64_t lastRefill_ = 0;
    std::uint64_t dayStart_ = 0;

    Fence fences_[5];
    std::int32_t fenceNext_ = 0;
    std::int32_t fenceLast_ = 0;

    std::vector<ProcessPointer> watched_;
    // Held by captures that wait, beyond the registry.
    std::vector<ProcessPointer> captured_;
    std::map<std::string, std::uint32_t> appCredits_;
    std::int32_t maxDailyLogs_ = 25;
    std::int32_t dailyLogCredits_ = 25;
    bool fenceCapturePending_ = false;
    std::optional<bool> traceLibrary_;
    std::uint64_t reportsSinceReset_ = 0;
    std::uint64_t lateReportsSinceReset_ = 0;

    bool trackerMade_ = false;
    std::map<std::string, ActivationPointer> activations_;
    std::int32_t largestPid_ = -1;
    std::uint32_t activationsRecorded_ = 0;
    // Finished activations on their way to the power log.
    std::uint32_t outputsWaiting_ = 0;
    bool otherProcessesSent_ = false;
};

}  // namespace quorvix::simulate
