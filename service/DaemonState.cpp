#include "service/DaemonState.h"

#include <cmath>

#include "activation/ActivationState.h"
#include "activation/AppActivationTracker.h"
#include "hang/HangState.h"
#include "hang/QXProcessInfo.h"
#include "perfstats/PerfState.h"
#include "platform/Platform.h"
#include "service/ServiceState.h"

namespace quorvix {

namespace {

// JSON knows finite numbers only, and a preference may be infinite.
JsonValue numberOrText(double value) {
    if (std::isfinite(value)) return value;
    return formatText("%f", value);
}

JsonObject settingsObject() {
    const Settings& current = settings();
    return {
        {"internalBuild", current.internalBuild},
        {"hangTracingEnabled", current.hangTracingEnabled},
        {"memoryLoggingEnabled", current.memoryLoggingEnabled},
        {"appActivationLoggingEnabled", current.appActivationLoggingEnabled},
        {"swivexEnabled", current.swivexEnabled},
        {"hudEnabled", current.hudEnabled},
        {"memoryLoggingIntervalSeconds", current.memoryLoggingInterval},
        {"reportPeriodTicks", current.reportPeriodTicks},
        {"maxActivationCount", current.maxActivationCount.load()},
        {"cpuUtilizationThresholdMs", numberOrText(current.cpuUtilizationThreshold)},
    };
}

// To the nearest second: msPerTick is of single precision, and 900 s of ticks are a little more than 900.
std::int64_t secondsOf(std::uint64_t ticks) {
    return saturated<std::int64_t>(std::round(static_cast<double>(ticks) * msPerTick() / 1000.0));
}

JsonValue secondsOrNothing(const std::optional<std::uint64_t>& ticks) {
    if (!ticks) return nullptr;
    return secondsOf(*ticks);
}

JsonObject budgetObject() {
    const std::uint64_t now = platform().tickClock.now();
    const ReportRefusals& refusals = hangState().refusals;
    JsonObject refused;
    for (std::size_t index = 0; index < kRefusalReasonCount; ++index) {
        const auto reason = static_cast<RefusalReason>(index);
        refused.add(std::string(refusalReasonName(reason)), refusals.count(reason));
    }
    JsonArray last;
    for (const ReportRefusal& refusal : refusals.last()) {
        last.push_back(JsonObject{{"secondsAgo", secondsOf(now - refusal.ticks)},
                                  {"app", refusal.app},
                                  {"hang", refusal.hang},
                                  {"reason", refusalReasonName(refusal.reason)}});
    }
    return {
        {"appCreditsAtMost", QXProcessInfo::kFullAppCredits},
        {"refillEverySeconds", secondsOf(settings().reportPeriodTicks >> 2)},
        {"nextRefillInSeconds", secondsOrNothing(ticksToCreditRefill(now))},
        {"dailyResetInSeconds", secondsOrNothing(ticksToDailyReset(now))},
        {"refused", std::move(refused)},
        {"lastRefusals", std::move(last)},
    };
}

// Looks at the tracker where it was made already; a look does not make it.
JsonObject activationCounters() {
    const ActivationState& state = activationState();
    const AppActivationTracker::Counters counters =
        state.sharedInstance ? state.sharedInstance->counters() : AppActivationTracker::Counters{};
    return {
        {"recordedToday", state.activationsRecordedCount.load()}, {"open", counters.openActivations.load()},
        {"stepsDropped", counters.droppedSteps.load()},           {"beginsDropped", counters.droppedBegins.load()},
        {"outputsDropped", counters.droppedOutputs.load()},
    };
}

JsonObject snapshotCounters() {
    const SnapshotMemory& memory = perfState().memory;
    return {{"bytesUsed", std::uint64_t{memory.usedBytes()}}, {"allocationsRefused", memory.refusals()}};
}

}  // namespace

JsonObject daemonState() {
    const HangState& hangs = hangState();
    JsonArray watched;
    for (const auto& process : hangs.watchedProcesses) {
        watched.push_back(JsonObject{{"pid", process->pid()},
                                     {"name", process->processName()},
                                     {"path", process->processPath()},
                                     {"credits", process->appCredit()}});
    }
    JsonObject appCredits;
    for (const auto& [name, credits] : hangs.appCredits) appCredits.add(name, credits);
    return {
        {"settings", settingsObject()},
        {"watched", std::move(watched)},
        {"appCredits", std::move(appCredits)},
        {"dailyCredits", JsonObject{{"left", hangs.dailyLogCredits}, {"limit", hangs.maxDailyLogs}}},
        {"budget", budgetObject()},
        {"counters", JsonObject{{"hangs", JsonObject{{"regionFaults", hangs.regionFaults},
                                                     {"displayClearsDropped", hangs.displayClearsDropped}}},
                                {"activations", activationCounters()},
                                {"snapshots", snapshotCounters()}}},
    };
}

}  // namespace quorvix
