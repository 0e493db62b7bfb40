#pragma once

#include <cstdint>
#include <string>

namespace quorvix {

// Pairs the begin and end of app activations. Not built into the daemon yet: every call says so in the log and does
// nothing else.
class AppActivationTracker {
public:
    static AppActivationTracker& sharedInstance();

    // time, vexStartTime: milliseconds since 2001-01-01 00:00:00 UTC. activationState: 1 foreground, 0 background.
    // activationType: 1 launch, else resume.
    void beginAppActivationTrackingForPID(std::int32_t pid, std::string bundleID, std::uint64_t time,
                                          std::uint64_t vexStartTime, std::int32_t activationState,
                                          std::int32_t activationType);
    void endAppActivationTrackingForPID(std::int32_t pid, std::string bundleID, std::uint64_t time,
                                        std::int32_t activationState, std::int32_t activationResult);
};

}  // namespace quorvix
