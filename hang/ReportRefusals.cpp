#include "hang/ReportRefusals.h"

namespace quorvix {

std::string_view refusalReasonName(RefusalReason reason) {
    switch (reason) {
        case RefusalReason::switchedOff: return "switched-off";
        case RefusalReason::noLibrary: return "no-library";
        case RefusalReason::appCredits: return "app-credits";
        case RefusalReason::dailyLimit: return "daily-limit";
        case RefusalReason::fencePending: return "fence-pending";
        case RefusalReason::notWritten: break;
    }
    return "not-written";
}

void ReportRefusals::add(std::string_view app, std::string_view hang, RefusalReason reason, std::uint64_t ticks) {
    ++counts_[static_cast<std::size_t>(reason)];
    if (last_.size() == kMostKept) last_.pop_back();
    last_.push_front(
        {std::string(app.substr(0, kLongestName)), std::string(hang.substr(0, kLongestName)), reason, ticks});
}

}  // namespace quorvix
