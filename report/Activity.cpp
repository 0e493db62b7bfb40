#include "report/Activity.h"

namespace quorvix::report {

std::string_view keyOf(Activity activity) {
    switch (activity) {
        case Activity::running: return "running";
        case Activity::runnable: return "runnable";
        case Activity::sleeping: return "sleeping";
        case Activity::uninterruptible: return "uninterruptible";
        case Activity::stopped: return "stopped";
        case Activity::gone: return "gone";
        case Activity::unknown: break;
    }
    return "unknown";
}

}  // namespace quorvix::report
