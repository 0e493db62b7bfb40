#include "platform/linux/WallClock.h"

#include <time.h>

#include "platform/linux/DatePattern.h"
#include "platform/linux/NextDay.h"

namespace quorvix::linuxos {

namespace {

class LinuxDateFormatter : public DateFormatter {
public:
    explicit LinuxDateFormatter(std::string_view pattern) : pattern_(pattern) {}

    std::string format(WallTime time) override {
        const auto seconds = std::chrono::floor<std::chrono::seconds>(time.time_since_epoch());
        const std::time_t moment = seconds.count();
        std::tm local{};
        // localtime_r alone keeps the zone it read first; tzset compares the zone file's identity and time.
        tzset();
        localtime_r(&moment, &local);
        return pattern_.format({.year = local.tm_year + 1900,
                                .month = local.tm_mon + 1,
                                .day = local.tm_mday,
                                .hour = local.tm_hour,
                                .minute = local.tm_min,
                                .second = local.tm_sec});
    }

private:
    DatePattern pattern_;
};

}  // namespace

WallTime LinuxWallClock::now() noexcept {
    timespec time{};
    clock_gettime(CLOCK_REALTIME, &time);
    return WallTime(std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec));
}

std::unique_ptr<DateFormatter> LinuxWallClock::makeDateFormatter(std::string_view pattern) {
    return std::make_unique<LinuxDateFormatter>(pattern);
}

WallTime LinuxWallClock::nextLocalMidnight(WallTime time) {
    tzset();
    return startOfNextDay(time, [](std::int64_t second) {
        const std::time_t moment = second;
        std::tm local{};
        localtime_r(&moment, &local);
        const std::chrono::year_month_day date{std::chrono::year(local.tm_year + 1900),
                                               std::chrono::month(static_cast<unsigned>(local.tm_mon + 1)),
                                               std::chrono::day(static_cast<unsigned>(local.tm_mday))};
        return std::int64_t{std::chrono::sys_days(date).time_since_epoch().count()};
    });
}

}  // namespace quorvix::linuxos
