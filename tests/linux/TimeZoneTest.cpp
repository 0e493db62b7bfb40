#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/mount.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>

#include "platform/linux/WallClock.h"
#include "tests/support/PrivateMounts.h"
#include "tests/support/TemporaryFolder.h"

namespace quorvix::linuxos {
namespace {

constexpr const char* kZones = "/usr/share/zoneinfo/";

// /etc is replaced by a folder of the test's, whose localtime is led from zone to zone.
int followTheLink(const std::string& folder) {
    unsetenv("TZ");
    if (mount(folder.c_str(), "/etc", nullptr, MS_BIND, nullptr) != 0) return tests::kCannotUnshare;
    LinuxWallClock clock;
    const auto formatter = clock.makeDateFormatter("yyyy-MM-dd HH:mm");
    const WallTime summer{std::chrono::seconds(1720000000)};  // 2024-07-03 09:46:40 UTC
    const auto expect = [&](const char* zone, const char* text) {
        std::filesystem::remove("/etc/localtime");
        if (zone) std::filesystem::create_symlink(std::string(kZones) + zone, "/etc/localtime");
        return formatter->format(summer) == text;
    };
    if (!expect(nullptr, "2024-07-03 09:46")) return 1;
    if (!expect("Europe/Berlin", "2024-07-03 11:46")) return 2;
    if (!expect("Asia/Tokyo", "2024-07-03 18:46")) return 3;
    if (!expect("America/New_York", "2024-07-03 05:46")) return 4;
    if (!expect("Europe/Berlin", "2024-07-03 11:46")) return 5;
    return formatter->format(WallTime{std::chrono::seconds(1704067199)}) == "2024-01-01 00:59" ? 0 : 6;
}

// Needs root and the zone files (Debian package tzdata).
TEST(TimeZoneTest, ATravellingDeviceFormatsInItsNewZone) {
    if (!std::filesystem::exists(std::string(kZones) + "Europe/Berlin")) GTEST_SKIP() << "no zone files here";
    tests::TemporaryFolder folder;
    const int outcome = tests::runInPrivateMounts([&] { return followTheLink(folder.path()); });
    if (outcome == tests::kCannotUnshare) GTEST_SKIP() << "needs root and mount namespaces";
    EXPECT_EQ(outcome, 0);
}

}  // namespace
}  // namespace quorvix::linuxos
