#include "activation/AppActivationTracker.h"

#include "service/Log.h"

namespace quorvix {

AppActivationTracker& AppActivationTracker::sharedInstance() {
    static AppActivationTracker tracker;
    return tracker;
}

void AppActivationTracker::beginAppActivationTrackingForPID(std::int32_t pid, std::string bundleID, std::uint64_t,
                                                            std::uint64_t, std::int32_t, std::int32_t) {
    platformLog().standard("Activation tracking is not built in: begin of %@[%d] is ignored", bundleID, pid);
}

void AppActivationTracker::endAppActivationTrackingForPID(std::int32_t pid, std::string bundleID, std::uint64_t,
                                                          std::int32_t, std::int32_t) {
    platformLog().standard("Activation tracking is not built in: end of %@[%d] is ignored", bundleID, pid);
}

}  // namespace quorvix
