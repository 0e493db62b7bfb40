// What a detected hang sets off.

#include "hang/HangDisplay.h"
#include "hang/HangState.h"
#include "hang/QXProcessInfo.h"
#include "platform/Platform.h"
#include "service/Log.h"
#include "service/ServiceState.h"

namespace quorvix {

namespace {

using namespace std::chrono_literals;

constexpr std::string_view kFenceHangName = "Fence-hang";
constexpr auto kFenceCaptureDelay = 1s;

void countHang(std::string_view name, const std::string& processName, double durationMs) {
    CounterService& counters = platform().counters;
    if (name == kFenceHangName) {
        counters.addToScalar("com.norvane.quorvix.QXLogsFenceHang.PreSwivex", 1);
    } else {
        counters.pushToDistribution(formatText("com.norvane.quorvix.%s.%@", name, processName), processName,
                                    durationMs);
    }
}

// For the operator's tool; the log has its own line, with the reason.
void noteRefusal(const QXProcessInfo& process, std::string_view hang, RefusalReason reason) {
    hangState().refusals.add(process.processName(), hang, reason, platform().tickClock.now());
}

// The guards before a report, in their order: switch, trace library, the app's budget, the device's.
bool mayReport(const QXProcessInfo& process, std::string_view hang) {
    const std::string& processName = process.processName();
    CounterService& counters = platform().counters;
    if (!settings().swivexEnabled) {
        quorvixLog()
            .about(LogEventKind::reportRefused, "switched-off")
            .standard("%@: Quorvix swivex support is disabled, not saving a report!", processName);
        noteRefusal(process, hang, RefusalReason::switchedOff);
        return false;
    }
    if (!hangState().traceLibrary.usable()) {
        quorvixLog()
            .about(LogEventKind::reportRefused, "no-library")
            .standard("%@: Tried to save swivex, but swivex support is not present on this device!", processName);
        noteRefusal(process, hang, RefusalReason::noLibrary);
        return false;
    }
    if (!process.checkAppCredit()) {
        quorvixLog()
            .about(LogEventKind::reportRefused, "app-credits")
            .standard("%@ is out of credits. Not saving a report!", processName);
        counters.addToScalar("com.norvane.quorvix.QXLogsMissedDueToProcessLimit.Total", 1);
        counters.addToScalar(formatText("com.norvane.quorvix.QXLogsMissedDueToProcessLimit.%@", processName), 1);
        noteRefusal(process, hang, RefusalReason::appCredits);
        return false;
    }
    if (!QXProcessInfo::checkDailyCredit()) {
        quorvixLog()
            .about(LogEventKind::reportRefused, "daily-limit")
            .standard("Device is out of Daily Log credits, hit the Daily Log limit of %u. Not saving a report!",
                      static_cast<std::uint32_t>(hangState().maxDailyLogs));
        counters.addToScalar("com.norvane.quorvix.QXLogsMissedDueToGlobalLimit.Total", 1);
        counters.addToScalar(formatText("com.norvane.quorvix.QXLogsMissedDueToGlobalLimit.%@", processName), 1);
        noteRefusal(process, hang, RefusalReason::dailyLimit);
        return false;
    }
    return true;
}

struct HangReport {
    std::string service;
    std::string reason;
    std::uint64_t threadID;
    std::uint64_t startTime;
    std::uint64_t endTime;
};

// Both budgets are tested before the report (before the delay, where there is one) and paid after it.
void saveAndPay(QXProcessInfo& process, const HangReport& report) {
    if (!process.saveSwivexForService(report.service, report.reason, report.threadID, report.startTime,
                                      report.endTime)) {
        noteRefusal(process, report.service, RefusalReason::notWritten);
        return;
    }
    process.deductAppCredit();
    QXProcessInfo::deductDailyCredit();
}

}  // namespace

void QXProcessInfo::recordHang(std::string_view name, std::uint64_t threadID, std::uint64_t startTime,
                               std::uint64_t endTime, bool saveSwivex) {
    const double durationMs = static_cast<double>(endTime - startTime) * msPerTick();
    const double seconds = durationMs / 1000.0;
    quorvixLog().about(LogEventKind::hang).info("%@: Hang detected %.2fs (%s)", processName_, seconds, name);
    setHUDMessage("HANG:%s %.10s %.2fs", name, processName_, seconds);
    scheduleHUDClear();
    countHang(name, processName_, durationMs);

    if (!saveSwivex || !mayReport(*this, name)) return;
    const HangReport report{std::string(name), formatText("%s-%@: timeout %.0fms", name, processName_, durationMs),
                            threadID, startTime, endTime};
    if (name != kFenceHangName) {
        saveAndPay(*this, report);
        return;
    }
    HangState& state = hangState();
    if (state.fenceHangCapturePending) {
        quorvixLog()
            .about(LogEventKind::reportRefused, "fence-pending")
            .standard("%@: Fence-hang, but waiting for FenceHangCapture - not saving another report!", processName_);
        noteRefusal(*this, name, RefusalReason::fencePending);
        return;
    }
    state.fenceHangCapturePending = true;
    daemonQueue().asyncAfter(kFenceCaptureDelay, [process = shared_from_this(), report] {
        saveAndPay(*process, report);
        hangState().fenceHangCapturePending = false;
    });
}

}  // namespace quorvix
