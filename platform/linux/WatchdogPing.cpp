#include "platform/linux/WatchdogPing.h"

#include <unistd.h>

#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <string_view>
#include <utility>

namespace quorvix::linuxos {

namespace {

// The greatest limit that is believed, a year: a number past it is a fault of who set it.
constexpr std::int64_t kGreatestLimitUs = std::int64_t{365} * 24 * 3600 * 1'000'000;

// A positive number that is the variable's whole text.
std::optional<std::int64_t> positiveNumber(const char* variable) {
    const char* const value = std::getenv(variable);
    if (value == nullptr) return std::nullopt;
    const std::string_view text = value;
    std::int64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc{} || end != text.data() + text.size() || number <= 0) return std::nullopt;
    return number;
}

}  // namespace

WatchdogPing::WatchdogPing(WorkQueue& queue, std::chrono::microseconds limit, Work ping)
    : timer_(queue.makeTimer(std::move(ping))) {
    const std::chrono::nanoseconds quarter = limit / 4;
    timer_->schedule({.firstDelay = quarter, .interval = quarter, .leeway = quarter});
    timer_->start();
}

std::optional<std::chrono::microseconds> WatchdogPing::limitFromEnvironment() {
    const auto limit = positiveNumber("WATCHDOG_USEC");
    if (!limit || *limit > kGreatestLimitUs) return std::nullopt;
    // The variables outlive an exec: they may have been meant for who started us.
    if (std::getenv("WATCHDOG_PID") != nullptr && positiveNumber("WATCHDOG_PID") != std::int64_t{getpid()}) {
        return std::nullopt;
    }
    return std::chrono::microseconds(*limit);
}

}  // namespace quorvix::linuxos
