#include "platform/sim/SimWallClock.h"

#include <utility>

#include "platform/linux/DatePattern.h"
#include "platform/linux/NextDay.h"

namespace quorvix::sim {

namespace {

class SimDateFormatter : public DateFormatter {
public:
    SimDateFormatter(std::string_view pattern, std::shared_ptr<const SimWallClock::ZoneRule> zone)
        : pattern_(pattern), zone_(std::move(zone)) {}

    std::string format(WallTime time) override {
        const auto local = std::chrono::floor<std::chrono::seconds>(time) + (*zone_)(time);
        const auto day = std::chrono::floor<std::chrono::days>(local);
        const std::chrono::year_month_day date(day);
        const std::chrono::hh_mm_ss clock(local - day);
        return pattern_.format({.year = static_cast<int>(date.year()),
                                .month = static_cast<int>(static_cast<unsigned>(date.month())),
                                .day = static_cast<int>(static_cast<unsigned>(date.day())),
                                .hour = static_cast<int>(clock.hours().count()),
                                .minute = static_cast<int>(clock.minutes().count()),
                                .second = static_cast<int>(clock.seconds().count())});
    }

private:
    linuxos::DatePattern pattern_;
    std::shared_ptr<const SimWallClock::ZoneRule> zone_;
};

}  // namespace

SimWallClock::SimWallClock(TimeSource source) : source_(std::move(source)), zone_(std::make_shared<ZoneRule>()) {
    setTimeZone(std::chrono::seconds{0});
}

std::unique_ptr<DateFormatter> SimWallClock::makeDateFormatter(std::string_view pattern) {
    return std::make_unique<SimDateFormatter>(pattern, zone_);
}

WallTime SimWallClock::nextLocalMidnight(WallTime time) {
    return linuxos::startOfNextDay(time, [this](std::int64_t second) {
        const WallTime moment{std::chrono::seconds(second)};
        return std::int64_t{
            std::chrono::floor<std::chrono::days>(moment + (*zone_)(moment)).time_since_epoch().count()};
    });
}

void SimWallClock::setTimeZone(std::chrono::seconds offsetEast) {
    *zone_ = [offsetEast](WallTime) { return offsetEast; };
}

}  // namespace quorvix::sim
