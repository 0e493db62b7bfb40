// The two budgets that reports are paid from: four credits an app, and a number of reports a day for the device.

#include "hang/HangState.h"
#include "hang/QXProcessInfo.h"
#include "platform/Platform.h"
#include "service/Log.h"

namespace quorvix {

namespace {

// 32-bit sums wrap: the limit comes from a preference and may be anything.
std::int32_t wrappingDifference(std::int32_t a, std::int32_t b) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(a) - static_cast<std::uint32_t>(b));
}

}  // namespace

std::uint32_t QXProcessInfo::appCredit() const {
    const auto entry = hangState().appCredits.find(processName_);
    return entry == hangState().appCredits.end() ? QXProcessInfo::kFullAppCredits : entry->second;
}

bool QXProcessInfo::checkAppCredit() const { return appCredit() != 0; }

void QXProcessInfo::deductAppCredit() {
    const std::uint32_t current = appCredit();
    if (current == 0) {
        quorvixLog().info("%@ Log credits: %u -> %u", processName_, 0u, 0u);
        return;
    }
    quorvixLog().info("%@ Log credits: %u -> %u", processName_, current, current - 1);
    hangState().appCredits[processName_] = current - 1;
}

bool QXProcessInfo::checkDailyCredit() { return hangState().dailyLogCredits > 0; }

void QXProcessInfo::deductDailyCredit() {
    HangState& state = hangState();
    const std::int32_t old = state.dailyLogCredits;
    state.dailyLogCredits = wrappingDifference(old, 1);
    quorvixLog().info("Daily Log credits: %i -> %i", old, state.dailyLogCredits);
}

void QXProcessInfo::replenishAppCredits() {
    auto& credits = hangState().appCredits;
    std::vector<std::string> full;
    for (auto& [name, value] : credits) {
        const std::uint32_t increased = value + 1;
        quorvixLog().info("%@ credits increased to: %u", name, increased);
        if (increased == QXProcessInfo::kFullAppCredits) {
            full.push_back(name);
        } else {
            value = increased;
        }
    }
    // Back at the full credits, which an absent name stands for.
    for (const std::string& name : full) credits.erase(name);
}

void QXProcessInfo::resetDailyLogCredits() {
    HangState& state = hangState();
    platform().counters.setScalar("com.norvane.quorvix.QXLogsGeneratedAtDailyReset",
                                  wrappingDifference(state.maxDailyLogs, state.dailyLogCredits));
    quorvixLog()
        .about(LogEventKind::dailyReset)
        .info("Hang Logs Daily Credits reset from %i to %i", state.dailyLogCredits, state.maxDailyLogs);
    state.dailyLogCredits = state.maxDailyLogs;
}

void QXProcessInfo::setMaxDailyLogs(std::int32_t newLimit) {
    HangState& state = hangState();
    quorvixLog().info("Max Daily Log Limit: %i -> %i", state.maxDailyLogs, newLimit);
    // Reports already written today count against the new limit too.
    const std::int32_t newCredits =
        wrappingDifference(newLimit, wrappingDifference(state.maxDailyLogs, state.dailyLogCredits));
    quorvixLog().info("Daily Log credits: %i -> %i", state.dailyLogCredits, newCredits);
    state.maxDailyLogs = newLimit;
    state.dailyLogCredits = newCredits;
}

}  // namespace quorvix
