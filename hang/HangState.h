#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "hang/ReportRefusals.h"
#include "hang/TraceLibrary.h"

namespace quorvix {

class QXProcessInfo;

// The process-wide state of hang detection, in one place so that a test starts from nothing. On daemonQueue only.
// Nothing of it is saved: a restarted daemon starts with full credits.
struct HangState {
    static constexpr std::int32_t kDefaultMaxDailyLogs = 25;

    // In the order in which they were added; the periodic check walks it in this order.
    std::vector<std::shared_ptr<QXProcessInfo>> watchedProcesses;
    // Credits left (0..3) of the apps that have used some; an app that is not here has all four.
    std::map<std::string, std::uint32_t, std::less<>> appCredits;
    std::int32_t maxDailyLogs = kDefaultMaxDailyLogs;
    std::int32_t dailyLogCredits = kDefaultMaxDailyLogs;
    // A delayed fence-hang capture is scheduled; at most one is.
    bool fenceHangCapturePending = false;
    // The last on-screen message, NUL-terminated.
    std::array<char, 100> hudMessageBuffer{};
    // Clears of the on-screen message that wait for their time, and whether the newest had to be left out.
    std::uint32_t displayClearsPending = 0;
    bool displayClearOwed = false;
    TraceLibrary traceLibrary;

    // Processes whose region faulted during the running check; dropped after the walk.
    std::vector<const QXProcessInfo*> faultedProcesses;

    // Hangs that went without the report they asked for.
    ReportRefusals refusals;

    // Self-counters.
    std::uint64_t regionFaults = 0;
    std::uint64_t displayClearsDropped = 0;
};

HangState& hangState();
// Replaces the whole state. Precondition: no record is in use.
void resetHangState();

}  // namespace quorvix
