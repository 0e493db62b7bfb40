#include "activation/AppActivation.h"

#include <array>
#include <new>

#include "perfstats/PerfStatsProcess.h"
#include "perfstats/StatisticsDelta.h"
#include "platform/Platform.h"
#include "platform/PropertyList.h"
#include "service/Log.h"

namespace quorvix {

namespace {

constexpr double kSecondsFrom1970To2001 = 978307200.0;
constexpr std::uint64_t kLatencyUnitMs = 50;
constexpr std::int32_t kStartLatencyFlag = 3;
constexpr std::int32_t kEndLatencyFlag = 4;

double secondsSince1970() {
    return std::chrono::duration<double>(platform().wallClock.now().time_since_epoch()).count();
}

// The name the system gives for the pid, as ASCII text; empty when it gives none.
std::string nameOfProcess(std::int32_t pid) {
    std::array<char, kTaskNameCapacity> buffer{};
    const auto length = platform().processes.processName(pid, buffer);
    if (!length || *length == 0) return {};
    return asciiText(buffer.data());
}

std::int64_t secondsSinceBoot() {
    const auto now = std::chrono::floor<std::chrono::seconds>(platform().wallClock.now().time_since_epoch()).count();
    const auto boot = platform().host.bootTimeSeconds();
    if (!boot || *boot == 0) return 0;
    return now - *boot;
}

}  // namespace

std::uint64_t activationTimeNow() {
    return saturated<std::uint64_t>((secondsSince1970() - kSecondsFrom1970To2001) * 1000.0);
}

std::shared_ptr<AppActivation> AppActivation::initWithStatisticsType(std::uint8_t type, std::int32_t pid,
                                                                     const std::string& bundleID, std::uint64_t time,
                                                                     std::uint64_t vexStartTime, std::uint8_t state,
                                                                     std::uint8_t activationType) {
    const std::shared_ptr<AppActivation> record(new (std::nothrow) AppActivation);
    if (!record) return nullptr;
    const std::uint64_t now = activationTimeNow();
    record->startTimestamp_ = time;
    if (time == 0) {
        record->startTimestamp_ = now;
        quorvixLog().standard("QXActivationStats: We got no Start time for the activation");
    }
    // Asked before the pid is stored, so for pid 0: the record carries the name of process 0, or none. The power log's
    // readers depend on the bundle identifier standing in for it.
    record->processName_ = nameOfProcess(record->pid_);
    record->snapshotTypesToRecord_ = type;
    record->pid_ = pid;
    record->bundleID_ = bundleID;
    record->appActivationStartState_ = state;
    record->appActivationType_ = activationType;
    record->systemUptime_ = secondsSinceBoot();
    // Unsigned: a start time of 0 or in the future is a huge latency, which fills the field and wraps in 32 bits.
    const std::uint64_t latency = now - vexStartTime;
    insertActivationFlag(latency / kLatencyUnitMs, kStartLatencyFlag, record->appActivationFlags_);
    quorvixLog().debug("QXActivationStats: Latency to get start message:%llu ms", latency);
    record->vexStartLatencyInMs_ = static_cast<std::uint32_t>(latency);
    record->appActivationID_ = record->startTimestamp_ << 32 | (stringHash(bundleID) & 0xFFFF) << 16 |
                               (static_cast<std::uint32_t>(pid) & 0xFFFF);
    record->startSnapshot_ = PerfSnapshot::createPerformanceSnapshotWithOptions(type);
    return record;
}

void AppActivation::activationEndedWithResult(std::uint8_t result, std::uint64_t endTime) {
    if (endTime == 0) quorvixLog().standard("QXActivationStats: We got no End time for the activation");
    const std::uint64_t now = activationTimeNow();
    const std::uint64_t end = endTime != 0 ? endTime : now;
    wallTime_ = static_cast<std::uint32_t>(end) - static_cast<std::uint32_t>(startTimestamp_);
    const std::uint64_t latency = now - end;
    insertActivationFlag(latency / kLatencyUnitMs, kEndLatencyFlag, appActivationFlags_);
    vexEndLatencyInMs_ = static_cast<std::uint32_t>(latency);
    quorvixLog().debug("QXActivationStats: Latency to get end message:%llu ms", latency);
    appActivationResult_ = result;
    endSnapshot_ = PerfSnapshot::createPerformanceSnapshotWithOptions(snapshotTypesToRecord_);
}

void AppActivation::logAppActivationData(std::int32_t output) {
    switch (output) {
        case kOutputConsole: logAppActivationDataToConsole(); return;
        case kOutputJson: logAppActivationDataAsJSON(); return;
        case kOutputWattrel: logAppActivationDataToWattrel(); return;
        default: return;
    }
}

}  // namespace quorvix
