#include "activation/AppActivationTracker.h"

#include <algorithm>

#include "activation/ActivationState.h"
#include "perfstats/PerfState.h"
#include "platform/Platform.h"
#include "service/Log.h"
#include "service/ServiceState.h"

namespace quorvix {

namespace {

using namespace std::chrono_literals;

constexpr std::uint8_t kAllStatistics = 7;
constexpr std::uint8_t kNoStatistics = 0;
constexpr std::uint8_t kResultEndWithoutBegin = 32;
constexpr std::uint8_t kResultBeginWithoutEnd = 33;
constexpr std::int32_t kForeground = 1;
constexpr std::uint8_t kTypeLaunch = 1;
constexpr std::uint8_t kTypeNone = 0;
constexpr auto kBeginTimeout = 60s;
// A launch whose message came later than this is left out of the trace: its interval would lie.
constexpr std::uint32_t kSignpostLatencyMs = 200;
constexpr auto kMidnightFallback = 60s;

// Never destroyed: the process ends without running destructors beside live threads.
std::unique_ptr<ActivationState>& holder() {
    static auto* const state = new std::unique_ptr<ActivationState>(std::make_unique<ActivationState>());
    return *state;
}

const char* stateWord(bool foreground) { return foreground ? "Foreground" : "Background"; }

}  // namespace

ActivationState& activationState() { return *holder(); }

void resetActivationState() { holder() = std::make_unique<ActivationState>(); }

std::string activationKey(std::int32_t pid, const std::string& bundleID) { return formatText("%d:%@", pid, bundleID); }

AppActivationTracker& AppActivationTracker::sharedInstance() {
    ActivationState& state = activationState();
    std::call_once(state.created, [&state] {
        state.signpostLog.emplace(platform().log, "com.norvane.quorvix.signposts", "appLaunch");
        state.sharedInstance.reset(new AppActivationTracker);
        state.sharedInstance->init();
    });
    return *state.sharedInstance;
}

AppActivationTracker::~AppActivationTracker() {
    activationQueue.reset();
    logOutputQueue.reset();
}

void AppActivationTracker::init() {
    logOutputQueue =
        platform().queues.makeSerialQueue("com.norvane.quorvix.perfstats.logoutput", QualityOfService::utility);
    activationQueue = platform().queues.makeSerialQueue("com.norvane.quorvix.perfstats.activationqueue",
                                                        QualityOfService::userInitiated);
    setupMidnightTimer();
    handleFirstUnlock();
}

void AppActivationTracker::handleFirstUnlock() {
    firstUnlock_ =
        platform().notifications.registerHandler("com.norvane.mobile.sentinad.first_unlock", logOutputQueue, [] {
            quorvixLog().info("QXActivationStats: First unlock; resetting largest tracked pid");
            perfState().largestTrackedPid = -1;
        });
}

void AppActivationTracker::setupMidnightTimer() {
    const WallTime now = platform().wallClock.now();
    const WallTime midnight = platform().wallClock.nextLocalMidnight(now);
    // Whole seconds; a midnight less than one away counts as reached, or the timer would spin before it.
    auto delay = std::chrono::duration_cast<std::chrono::seconds>(midnight - now);
    if (delay <= 0s) delay = kMidnightFallback;
    quorvixLog().info("QXActivationStats: Setting Timer to fire at %@", midnight);
    logOutputQueue->asyncAt(now + delay, [midnight] {
        quorvixLog().info("QXActivationStats: Timer Fired at %@. Scheduled date was:%@", platform().wallClock.now(),
                          midnight);
        perfState().largestTrackedPid = -1;
        activationState().activationsRecordedCount = 0;
        sharedInstance().setupMidnightTimer();
    });
}

// Queues a begin or end for activationQueue, unless clients have queued too much already.
template <class Step>
void AppActivationTracker::queueStep(std::int32_t sender, std::size_t bytes, Step step) {
    if (waitingSteps_ >= kMaximumWaitingSteps || heldBytes_ + bytes > kMaximumHeldBytes ||
        !takeShare(sender, &SenderLoad::steps, kMaximumWaitingStepsOfSender)) {
        counters_.droppedSteps.add(1);
        return;
    }
    waitingSteps_.add(1);
    heldBytes_.add(bytes);
    activationQueue->async([this, self = shared_from_this(), sender, bytes, step = std::move(step)] {
        giveShareBack(sender, &SenderLoad::steps);
        waitingSteps_.add(static_cast<std::uint32_t>(-1));
        heldBytes_.add(std::uint64_t{0} - bytes);
        step();
    });
}

bool AppActivationTracker::takeShare(std::int32_t sender, SenderCount count, std::uint32_t maximum) {
    if (sender == kUnknownSender) return true;
    const std::lock_guard lock(sendersMutex_);
    SenderLoad& load = senders_[sender];
    if (load.*count >= maximum) return false;
    ++(load.*count);
    return true;
}

void AppActivationTracker::giveShareBack(std::int32_t sender, SenderCount count) {
    if (sender == kUnknownSender) return;
    const std::lock_guard lock(sendersMutex_);
    const auto found = senders_.find(sender);
    --(found->second.*count);
    if (found->second.steps == 0 && found->second.timeouts == 0) senders_.erase(found);
}

void AppActivationTracker::beginAppActivationTrackingForPID(std::int32_t pid, std::string bundleID, std::uint64_t time,
                                                            std::uint64_t vexStartTime, std::int32_t activationState,
                                                            std::int32_t activationType, std::int32_t sender) {
    const std::size_t bytes = bundleID.size();
    queueStep(sender, bytes,
              [this, step = Begin{pid, std::move(bundleID), time, vexStartTime, activationState, activationType,
                                  sender}] { begin(step); });
}

void AppActivationTracker::endAppActivationTrackingForPID(std::int32_t pid, std::string bundleID, std::uint64_t time,
                                                          std::int32_t activationState, std::int32_t activationResult,
                                                          std::int32_t sender) {
    const std::size_t bytes = bundleID.size();
    queueStep(sender, bytes,
              [this, step = End{pid, std::move(bundleID), time, activationState, activationResult}] { end(step); });
}

// Takes the sender's share of a time-out where it says yes.
bool AppActivationTracker::mayBegin(std::int32_t sender) {
    if (appActivationDictionary.size() < kMaximumOpenActivations && pendingTimeouts_ < kMaximumPendingTimeouts &&
        heldBytes_ < kMaximumHeldBytes && takeShare(sender, &SenderLoad::timeouts, kMaximumPendingTimeoutsOfSender)) {
        return true;
    }
    counters_.droppedBegins.add(1);
    return false;
}

void AppActivationTracker::begin(const Begin& begin) {
    const std::string key = activationKey(begin.pid, begin.bundleID);
    if (appActivationDictionary.contains(key)) {
        quorvixLog().standard("QXActivationStats: beginActivationTrackingForPID: An entry already exists for %s\n",
                              key);
        return;
    }
    if (!mayBegin(begin.sender)) return;
    const auto record = AppActivation::initWithStatisticsType(
        kAllStatistics, begin.pid, begin.bundleID, begin.time, begin.vexStartTime,
        static_cast<std::uint8_t>(begin.state), static_cast<std::uint8_t>(begin.type));
    if (!record) {
        giveShareBack(begin.sender, &SenderLoad::timeouts);
        return;
    }
    appActivationDictionary.emplace(key, record);
    counters_.openActivations = appActivationDictionary.size();
    if (begin.type == kTypeLaunch) {
        quorvix::activationState().signpostLog->debug("vexStartLatencyInMs %u ms", record->vexStartLatencyInMs());
        if (record->vexStartLatencyInMs() < kSignpostLatencyMs) signpostBeginOfLaunch(begin.pid, begin.bundleID);
    }
    // The key, the identifier and the record's own copy of it.
    const std::uint64_t bytes = 3 * begin.bundleID.size();
    ++pendingTimeouts_;
    heldBytes_.add(bytes);
    activationQueue->asyncAfter(kBeginTimeout, [this, self = shared_from_this(), key, begin, bytes] {
        --pendingTimeouts_;
        giveShareBack(begin.sender, &SenderLoad::timeouts);
        heldBytes_.add(0 - bytes);
        timeOut(key, begin);
    });
}

void AppActivationTracker::timeOut(const std::string& key, const Begin& begin) {
    // Found by key alone: where the activation has ended and a newer one of the same key is open, that one goes.
    const auto found = appActivationDictionary.find(key);
    if (found == appActivationDictionary.end()) return;
    if (found->second->appActivationType() == kTypeLaunch) signpostEndOfLaunch(begin.pid, begin.bundleID, false);
    appActivationDictionary.erase(found);
    counters_.openActivations = appActivationDictionary.size();
    // Only for its latency lines; neither counted nor sent.
    if (const auto record = AppActivation::initWithStatisticsType(kNoStatistics, begin.pid, begin.bundleID, begin.time,
                                                                  begin.vexStartTime,
                                                                  static_cast<std::uint8_t>(begin.state), kTypeNone)) {
        record->activationEndedWithResult(kResultBeginWithoutEnd, begin.time);
    }
    quorvixLog().standard("QXActivationStats: beginActivationTrackingForPID: Did not find an end call entry for %s\n",
                          key);
}

void AppActivationTracker::end(const End& end) {
    const std::string key = activationKey(end.pid, end.bundleID);
    const auto found = appActivationDictionary.find(key);
    if (found != appActivationDictionary.end()) {
        const std::shared_ptr<AppActivation> record = found->second;
        record->activationEndedWithResult(static_cast<std::uint8_t>(end.result), end.time);
        if (record->appActivationType() == kTypeLaunch) {
            quorvix::activationState().signpostLog->debug("vexEndLatencyInMs %u ms", record->vexEndLatencyInMs());
            if (record->vexEndLatencyInMs() < kSignpostLatencyMs) signpostEndOfLaunch(end.pid, end.bundleID, true);
        }
        quorvixLog().debug(
            "QXActivationStats: Activation Complete:Activationid:%lld BundleID:%@ PID:%d Result:%d Type:%d "
            "TimeTaken:%d ms",
            static_cast<std::int64_t>(record->appActivationID()), end.bundleID, end.pid, end.result,
            std::int32_t{record->appActivationType()}, static_cast<std::int32_t>(record->wallTime()));
        appActivationDictionary.erase(key);
        counters_.openActivations = appActivationDictionary.size();
        recordOrRefuse(record, end);
        return;
    }
    const auto record = AppActivation::initWithStatisticsType(kNoStatistics, end.pid, end.bundleID, end.time, end.time,
                                                              static_cast<std::uint8_t>(end.state), kTypeNone);
    if (!record) return;
    record->activationEndedWithResult(kResultEndWithoutBegin, end.time);
    quorvixLog().standard("QXActivationStats: endActivationTrackingForPID: Did not find an existing entry for %s\n",
                          key);
    recordOrRefuse(record, end);
}

void AppActivationTracker::recordOrRefuse(const std::shared_ptr<AppActivation>& record, const End& end) {
    Relaxed<std::uint32_t>& recorded = quorvix::activationState().activationsRecordedCount;
    const bool passes = record->appActivationStartState() == kForeground && end.state == kForeground &&
                        settings().maxActivationCount > recorded;
    if (!passes) {
        quorvixLog().standard(
            "QXActivationStats: Activation not recorded for:%@ StartState:%s EndState:%s Number Of Activations:%d",
            end.bundleID, stateWord(record->appActivationStartState() != 0), stateWord(end.state != 0),
            static_cast<std::int32_t>(recorded.load()));
        return;
    }
    send(record, end.bundleID);
}

void AppActivationTracker::send(const std::shared_ptr<AppActivation>& record, const std::string& bundleID) {
    // The captured identifier and the record's copy of it.
    const std::uint64_t bytes = 2 * bundleID.size();
    if (waitingOutputs_ >= kMaximumWaitingOutputs || heldBytes_ + bytes > kMaximumHeldBytes) {
        counters_.droppedOutputs.add(1);
        return;
    }
    waitingOutputs_.add(1);
    heldBytes_.add(bytes);
    logOutputQueue->async([this, self = shared_from_this(), record, bundleID, bytes] {
        const std::uint32_t count = quorvix::activationState().activationsRecordedCount.add(1);
        record->logAppActivationData(kOutputWattrel);
        quorvixLog().debug("QXActivationStats: Sending activation for %@ to Wattrel. Number Of Activations recorded:%d",
                           bundleID, static_cast<std::int32_t>(count));
        // The line above is off as a rule.
        platformLog().about(LogEventKind::activationRecorded).info("Activation recorded: %@", bundleID);
        waitingOutputs_.add(static_cast<std::uint32_t>(-1));
        heldBytes_.add(0 - bytes);
    });
}

}  // namespace quorvix
