#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "perfstats/PerfSnapshot.h"

namespace quorvix {

// Wall-clock milliseconds since 2001-01-01 00:00:00 UTC, as activation times are counted.
std::uint64_t activationTimeNow();

// Who renders a finished activation, and where to.
enum ActivationOutput : std::int32_t { kOutputConsole = 0, kOutputJson = 1, kOutputWattrel = 2 };

// One app launch or resume: who, when, how late its messages came, how long it took, how it ended, and a performance
// snapshot of either end. Made and ended on the activation queue, rendered on the output queue; one of them at a time
// has it. Only the initialiser, activationEndedWithResult and the power-log rendering (its flags) write it.
class AppActivation {
public:
    // Begins an activation and takes its start snapshot. type: SnapshotOption bits. time, vexStartTime: milliseconds
    // since 2001; a time of 0 is unknown and becomes now. nullptr without memory for the record.
    static std::shared_ptr<AppActivation> initWithStatisticsType(std::uint8_t type, std::int32_t pid,
                                                                 const std::string& bundleID, std::uint64_t time,
                                                                 std::uint64_t vexStartTime, std::uint8_t state,
                                                                 std::uint8_t activationType);

    // Ends it and takes its end snapshot. endTime 0: unknown, now. A second end is not guarded against: it overwrites
    // the end and mixes a second latency into the flags.
    void activationEndedWithResult(std::uint8_t result, std::uint64_t endTime);

    // ActivationOutput; any other value does nothing.
    void logAppActivationData(std::int32_t output);
    void logAppActivationDataToConsole();
    void logAppActivationDataAsJSON();
    void logAppActivationDataToWattrel();

    std::uint8_t snapshotTypesToRecord() const { return snapshotTypesToRecord_; }
    std::uint8_t appActivationStartState() const { return appActivationStartState_; }
    std::uint8_t appActivationResult() const { return appActivationResult_; }
    std::uint8_t appActivationSource() const { return appActivationSource_; }
    std::uint8_t appActivationType() const { return appActivationType_; }
    std::int32_t pid() const { return pid_; }
    std::uint32_t wallTime() const { return wallTime_; }
    std::uint32_t vexStartLatencyInMs() const { return vexStartLatencyInMs_; }
    std::uint32_t vexEndLatencyInMs() const { return vexEndLatencyInMs_; }
    std::int64_t systemUptime() const { return systemUptime_; }
    const std::string& processName() const { return processName_; }
    const std::string& bundleID() const { return bundleID_; }
    std::uint64_t appActivationID() const { return appActivationID_; }
    std::uint64_t startTimestamp() const { return startTimestamp_; }
    std::uint64_t appActivationFlags() const { return appActivationFlags_; }
    const PerfSnapshot* startSnapshot() const { return startSnapshot_.get(); }
    const PerfSnapshot* endSnapshot() const { return endSnapshot_.get(); }

private:
    AppActivation() = default;

    std::uint8_t snapshotTypesToRecord_ = 0;
    std::uint8_t appActivationStartState_ = 0;
    std::uint8_t appActivationResult_ = 0;
    std::uint8_t appActivationSource_ = 0;  // never written
    std::uint8_t appActivationType_ = 0;
    std::int32_t pid_ = 0;
    std::uint32_t wallTime_ = 0;  // ms
    std::uint32_t vexStartLatencyInMs_ = 0;
    std::uint32_t vexEndLatencyInMs_ = 0;
    std::int64_t systemUptime_ = 0;  // s
    std::string processName_;
    std::string bundleID_;
    std::uint64_t appActivationID_ = 0;
    std::uint64_t startTimestamp_ = 0;  // ms since 2001
    std::uint64_t appActivationFlags_ = 0;
    std::unique_ptr<PerfSnapshot> startSnapshot_;
    std::unique_ptr<PerfSnapshot> endSnapshot_;
};

}  // namespace quorvix
