#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>

namespace quorvix {

// Why a hang that asked for a report got none. The words are those of the log's events.
enum class RefusalReason : std::uint8_t { switchedOff, noLibrary, appCredits, dailyLimit, fencePending, notWritten };
inline constexpr std::size_t kRefusalReasonCount = 6;

std::string_view refusalReasonName(RefusalReason reason);

struct ReportRefusal {
    std::string app;
    std::string hang;
    RefusalReason reason;
    std::uint64_t ticks;  // when
};

// The refusals since the daemon's start: how many of each reason, and the last of them for the operator to look at.
// Bounded whatever apps do: so many are kept, and so many bytes of each name.
class ReportRefusals {
public:
    static constexpr std::size_t kMostKept = 32;
    static constexpr std::size_t kLongestName = 128;

    void add(std::string_view app, std::string_view hang, RefusalReason reason, std::uint64_t ticks);

    std::uint64_t count(RefusalReason reason) const { return counts_[static_cast<std::size_t>(reason)]; }
    // The newest first.
    const std::deque<ReportRefusal>& last() const { return last_; }

private:
    std::array<std::uint64_t, kRefusalReasonCount> counts_{};
    std::deque<ReportRefusal> last_;
};

}  // namespace quorvix
