#pragma once

#include "platform/Time.h"

namespace quorvix::linuxos {

// CLOCK_REALTIME, and date formats in the system's time zone (/etc/localtime, or TZ where the service manager gives
// it). The zone is looked at before every use: a device that travels changes it while the daemon runs.
class LinuxWallClock : public WallClock {
public:
    WallTime now() noexcept override;
    std::unique_ptr<DateFormatter> makeDateFormatter(std::string_view pattern) override;
    WallTime nextLocalMidnight(WallTime time) override;
};

}  // namespace quorvix::linuxos
