#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>

#include "platform/Relaxed.h"
#include "platform/SystemLog.h"

namespace quorvix {

class AppActivationTracker;

// The process-wide state of activation tracking, in one place so that a test starts from nothing.
struct ActivationState {
    std::once_flag created;
    std::shared_ptr<AppActivationTracker> sharedInstance;
    // Subsystem "com.norvane.quorvix.signposts", category "appLaunch".
    std::optional<LogHandle> signpostLog;
    // Activations handed to the power log since midnight. Counted on the output queue, compared with the limit on the
    // activation queue without a lock: a burst may pass the limit by what is in flight, which is accepted.
    Relaxed<std::uint32_t> activationsRecordedCount{0};
};

ActivationState& activationState();
// Replaces the whole state. Precondition: none of the tracker's work is pending.
void resetActivationState();

}  // namespace quorvix
