#pragma once

#include <chrono>
#include <functional>
#include <memory>

#include "platform/Time.h"

namespace quorvix::sim {

// The wall clock of a simulated run: time comes from whoever moves it, the time zone from the test. Formatters read
// the zone at every use, so that a change shows in those made before. One thread.
class SimWallClock : public WallClock {
public:
    using TimeSource = std::function<WallTime()>;
    // Offset east of UTC at a point of time: daylight saving is a rule that answers two values.
    using ZoneRule = std::function<std::chrono::seconds(WallTime)>;

    // The source is kept; UTC until a zone is set.
    explicit SimWallClock(TimeSource source);

    WallTime now() noexcept override { return source_(); }
    std::unique_ptr<DateFormatter> makeDateFormatter(std::string_view pattern) override;
    WallTime nextLocalMidnight(WallTime time) override;

    void setTimeZone(std::chrono::seconds offsetEast);
    void setTimeZone(ZoneRule rule) { *zone_ = std::move(rule); }

private:
    TimeSource source_;
    std::shared_ptr<ZoneRule> zone_;
};

}  // namespace quorvix::sim
