#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "activation/AppActivation.h"
#include "platform/Notifications.h"
#include "platform/Relaxed.h"
#include "platform/SystemLog.h"
#include "platform/WorkQueue.h"

namespace quorvix {

// Pairs the begin and the end of app activations, one open record a process and bundle, times out begins that never
// end, and decides which finished activations go to the power log.
//
// Begin and end are called on daemonQueue and only queue; all work is done on two queues of the tracker's own:
// activationQueue (begin, end, time-outs and the map) and logOutputQueue (output, midnight, first unlock). Made on
// first use, never destroyed.
class AppActivationTracker : public std::enable_shared_from_this<AppActivationTracker> {
public:
    // Clients decide how many activations are begun: past these a begin is dropped and counted.
    static constexpr std::size_t kMaximumOpenActivations = 4096;
    static constexpr std::uint32_t kMaximumPendingTimeouts = 16384;
    // Begins and ends that wait for activationQueue.
    static constexpr std::uint32_t kMaximumWaitingSteps = 4096;
    // Of these, what comes from one client process, so that one that floods leaves room for the others.
    static constexpr std::uint32_t kMaximumWaitingStepsOfSender = kMaximumWaitingSteps / 8;
    static constexpr std::uint32_t kMaximumPendingTimeoutsOfSender = kMaximumPendingTimeouts / 16;
    static constexpr std::int32_t kUnknownSender = 0;  // has no such bounds
    // Finished activations that wait for the power log: as long as none has landed, the daily limit lets all pass.
    static constexpr std::uint32_t kMaximumWaitingOutputs = 1024;
    // Bytes of bundle identifiers held by all of these together.
    static constexpr std::uint64_t kMaximumHeldBytes = std::uint64_t{8} * 1024 * 1024;

    struct Counters {
        Relaxed<std::uint64_t> openActivations;
        Relaxed<std::uint64_t> droppedSteps;    // queue full
        Relaxed<std::uint64_t> droppedBegins;   // too many open or pending
        Relaxed<std::uint64_t> droppedOutputs;  // the power log is too far behind
    };

    // The one tracker; the first call makes it. From any thread.
    static AppActivationTracker& sharedInstance();
    ~AppActivationTracker();
    AppActivationTracker(const AppActivationTracker&) = delete;
    AppActivationTracker& operator=(const AppActivationTracker&) = delete;

    // time, vexStartTime: milliseconds since 2001-01-01 00:00:00 UTC. activationState: 1 foreground, 0 background.
    // activationType: 1 launch, else resume. sender: the process that sent the message.
    void beginAppActivationTrackingForPID(std::int32_t pid, std::string bundleID, std::uint64_t time,
                                          std::uint64_t vexStartTime, std::int32_t activationState,
                                          std::int32_t activationType, std::int32_t sender = kUnknownSender);
    void endAppActivationTrackingForPID(std::int32_t pid, std::string bundleID, std::uint64_t time,
                                        std::int32_t activationState, std::int32_t activationResult,
                                        std::int32_t sender = kUnknownSender);

    const Counters& counters() const { return counters_; }

private:
    struct Begin {
        std::int32_t pid;
        std::string bundleID;
        std::uint64_t time;
        std::uint64_t vexStartTime;
        std::int32_t state;
        std::int32_t type;
        std::int32_t sender;
    };
    struct End {
        std::int32_t pid;
        std::string bundleID;
        std::uint64_t time;
        std::int32_t state;
        std::int32_t result;
    };

    // What of one sender is held: steps that wait, time-outs that are armed.
    struct SenderLoad {
        std::uint32_t steps = 0;
        std::uint32_t timeouts = 0;
    };
    using SenderCount = std::uint32_t SenderLoad::*;

    AppActivationTracker() = default;
    void init();
    void setupMidnightTimer();
    void handleFirstUnlock();

    template <class Step>
    void queueStep(std::int32_t sender, std::size_t bytes, Step step);
    // Counts one more of the sender's, or says that it has its share already.
    bool takeShare(std::int32_t sender, SenderCount count, std::uint32_t maximum);
    void giveShareBack(std::int32_t sender, SenderCount count);
    bool mayBegin(std::int32_t sender);
    void begin(const Begin& begin);
    void timeOut(const std::string& key, const Begin& begin);
    void end(const End& end);
    void recordOrRefuse(const std::shared_ptr<AppActivation>& record, const End& end);
    void send(const std::shared_ptr<AppActivation>& record, const std::string& bundleID);

    // Launch intervals in the performance trace, on internal builds only (LaunchSignposts.cpp).
    void signpostBeginOfLaunch(std::int32_t pid, const std::string& bundleID);
    void signpostEndOfLaunch(std::int32_t pid, const std::string& bundleID, bool isValidEndOfLaunch);

    // Open activations by key; on activationQueue only.
    std::map<std::string, std::shared_ptr<AppActivation>> appActivationDictionary;
    std::shared_ptr<WorkQueue> logOutputQueue;
    std::shared_ptr<WorkQueue> activationQueue;

    std::unique_ptr<NotificationToken> firstUnlock_;
    Counters counters_;
    Relaxed<std::uint32_t> waitingSteps_{0};
    Relaxed<std::uint32_t> waitingOutputs_{0};
    Relaxed<std::uint64_t> heldBytes_{0};
    std::uint32_t pendingTimeouts_ = 0;  // on activationQueue
    std::mutex sendersMutex_;
    std::unordered_map<std::int32_t, SenderLoad> senders_;  // those that hold anything
};

// The key of an open activation: "pid:bundle".
std::string activationKey(std::int32_t pid, const std::string& bundleID);

}  // namespace quorvix
