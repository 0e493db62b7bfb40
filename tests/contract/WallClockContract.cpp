#include <gtest/gtest.h>
#include <stdlib.h>

#include <chrono>
#include <string>

#include "platform/linux/WallClock.h"
#include "platform/sim/SimWallClock.h"

namespace quorvix::wall_clock_contract {
namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using std::chrono::seconds;

struct LinuxWorld {
    LinuxWorld() { setZone(0); }
    ~LinuxWorld() { unsetenv("TZ"); }
    // The sign of a TZ value counts westwards.
    void setZone(int hoursEast) { setenv("TZ", ("<zone>" + std::to_string(-hoursEast)).c_str(), 1); }

    linuxos::LinuxWallClock clock;
};

struct SimWorld {
    void setZone(int hoursEast) { clock.setTimeZone(hours(hoursEast)); }

    WallTime time{seconds(1700000000)};
    sim::SimWallClock clock{[this] { return time; }};
};

template <class World>
class WallClockContract : public testing::Test {
protected:
    std::string format(std::string_view pattern, WallTime time) {
        return world_.clock.makeDateFormatter(pattern)->format(time);
    }

    World world_;
};

using Worlds = testing::Types<LinuxWorld, SimWorld>;
TYPED_TEST_SUITE(WallClockContract, Worlds);

TYPED_TEST(WallClockContract, FormatsLocalTime) {
    const WallTime time{seconds(1700000000)};  // 2023-11-14 22:13:20 UTC
    EXPECT_EQ(this->format("yyyy-MM-dd-HHmmss", time), "2023-11-14-221320");
    this->world_.setZone(9);
    EXPECT_EQ(this->format("yyyy-MM-dd-HHmmss", time), "2023-11-15-071320");
}

TYPED_TEST(WallClockContract, AZoneChangeShowsInAFormatterMadeBefore) {
    const auto formatter = this->world_.clock.makeDateFormatter("HH");
    const WallTime noon{hours(12)};
    EXPECT_EQ(formatter->format(noon), "12");
    this->world_.setZone(-5);
    EXPECT_EQ(formatter->format(noon), "07");
    this->world_.setZone(2);
    EXPECT_EQ(formatter->format(noon), "14");
}

TYPED_TEST(WallClockContract, CutsFractionsOfASecondDownwards) {
    EXPECT_EQ(this->format("HHmmss", WallTime{milliseconds(1999)}), "000001");
    EXPECT_EQ(this->format("yyyy-MM-dd HH:mm:ss", WallTime{milliseconds(-1)}), "1969-12-31 23:59:59");
}

TYPED_TEST(WallClockContract, PadsFieldsAndKeepsLiterals) {
    const WallTime time{hours(24) * 31 + seconds(3661)};
    EXPECT_EQ(this->format("yyyy/MM/dd HH.mm.ss +0000", time), "1970/02/01 01.01.01 +0000");
    EXPECT_EQ(this->format("", time), "");
    EXPECT_EQ(this->format("no letters: yyy M d", time), "no letters: yyy M d");
}

TYPED_TEST(WallClockContract, LeapDaysAndYearEnds) {
    EXPECT_EQ(this->format("yyyy-MM-dd", WallTime{seconds(951782400)}), "2000-02-29");
    EXPECT_EQ(this->format("yyyy-MM-dd HHmmss", WallTime{seconds(1735689599)}), "2024-12-31 235959");
}

TYPED_TEST(WallClockContract, TellsTheTime) {
    const WallTime first = this->world_.clock.now();
    EXPECT_GE(this->world_.clock.now(), first);
    EXPECT_GT(first, WallTime{seconds(1600000000)});
}

}  // namespace
}  // namespace quorvix::wall_clock_contract
