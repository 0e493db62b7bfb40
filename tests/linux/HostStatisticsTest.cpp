#include "platform/linux/HostStatistics.h"

#include <gtest/gtest.h>
#include <time.h>

#include <cerrno>
#include <filesystem>

#include "tests/support/TemporaryFolder.h"

namespace quorvix::linuxos {
namespace {

constexpr std::string_view kMeminfo =
    "MemTotal:       24684092 kB\nMemFree:           4000 kB\nBuffers:             40 kB\nCached:             400 kB\n"
    "Active:            1600 kB\nInactive:          2000 kB\nActive(anon):         4 kB\nInactive(anon):       4 kB\n"
    "Unevictable:         80 kB\nMlocked:             80 kB\nZswap:               16 kB\nZswapped:            64 kB\n"
    "AnonPages:          800 kB\nShmem:               20 kB\nKReclaimable:       120 kB\nSlab:               160 kB\n"
    "SReclaimable:       120 kB\nSUnreclaim:          40 kB\nKernelStack:          8 kB\nPageTables:          12 kB\n"
    "SecPageTables:        4 kB\nPercpu:              16 kB\n";
constexpr std::string_view kVmstat =
    "nr_free_pages 1\npgpgin 400\npgpgout 800\npswpin 3\npswpout 4\npgactivate 5\npgfault 6\npgmajfault 7\n"
    "pglazyfree 99\npglazyfreed 8\nzswpin 9\nzswpout 10\nzswpwb 11\n";

TEST(HostStatisticsTest, EachFieldFromItsSource) {
    const vm_statistics64 statistics =
        vmStatisticsOf(kMeminfo, kVmstat, {.originalBytes = 40960, .compressedBytes = 8192}, 4096);
    EXPECT_EQ(statistics.free_count, 1000u);
    EXPECT_EQ(statistics.active_count, 400u);
    EXPECT_EQ(statistics.inactive_count, 500u);
    EXPECT_EQ(statistics.wire_count, 10u + 2 + 3 + 1 + 4 + 20);
    EXPECT_EQ(statistics.reactivations, 5u);
    EXPECT_EQ(statistics.pageins, 100u);
    EXPECT_EQ(statistics.pageouts, 200u);
    EXPECT_EQ(statistics.faults, 6u);
    EXPECT_EQ(statistics.purges, 8u);
    EXPECT_EQ(statistics.purgeable_count, 30u);
    EXPECT_EQ(statistics.decompressions, 9u);
    EXPECT_EQ(statistics.compressions, 10u);
    EXPECT_EQ(statistics.swapins, 3u);
    EXPECT_EQ(statistics.swapouts, 4u);
    EXPECT_EQ(statistics.compressor_page_count, 4u + 2);
    EXPECT_EQ(statistics.external_page_count, 10u + 100 - 5);
    EXPECT_EQ(statistics.internal_page_count, 200u + 5);
    EXPECT_EQ(statistics.total_uncompressed_pages_in_compressor, 16u + 10);
}

TEST(HostStatisticsTest, WhatHasNoSourceIsZero) {
    const vm_statistics64 statistics = vmStatisticsOf(kMeminfo, kVmstat, {}, 4096);
    EXPECT_EQ(statistics.zero_fill_count, 0u);
    EXPECT_EQ(statistics.cow_faults, 0u);
    EXPECT_EQ(statistics.lookups, 0u);
    EXPECT_EQ(statistics.hits, 0u);
    EXPECT_EQ(statistics.speculative_count, 0u);
    EXPECT_EQ(statistics.throttled_count, 0u);
}

TEST(HostStatisticsTest, PagesAreOfTheMachinesSize) {
    EXPECT_EQ(vmStatisticsOf(kMeminfo, kVmstat, {}, 16384).free_count, 250u);
}

TEST(HostStatisticsTest, AnAmountThatDoesNotFitIsTheLargest) {
    constexpr std::string_view kHuge = "MemFree: 17179869184 kB\nActive: 17179869180 kB\n";
    const vm_statistics64 statistics = vmStatisticsOf(kHuge, "", {}, 4096);
    EXPECT_EQ(statistics.free_count, 0xFFFFFFFFu);
    EXPECT_EQ(statistics.active_count, 0xFFFFFFFFu);
    EXPECT_EQ(vmStatisticsOf("Active: 17179869176 kB\n", "", {}, 4096).active_count, 0xFFFFFFFEu);
}

TEST(HostStatisticsTest, TextsWithoutAnyLineGiveZeros) { EXPECT_EQ(vmStatisticsOf("", "", {}, 4096).free_count, 0u); }

class HostFilesTest : public testing::Test {
protected:
    HostFilesTest() {
        tests::writeWholeFile(folder_.path("meminfo"), std::string(kMeminfo));
        tests::writeWholeFile(folder_.path("vmstat"), std::string(kVmstat));
    }
    int query(std::uint32_t count = kVMStatistics64Count) {
        const auto queried = host_.vmStatistics64(statistics_, count);
        return queried ? 0 : queried.error().value;
    }

    tests::TemporaryFolder folder_;
    LinuxHostStatistics host_{{.proc = folder_.path(), .blockDevices = folder_.path("block")}};
    vm_statistics64 statistics_{};
};

TEST_F(HostFilesTest, CompressedBlockDevicesAreSummed) {
    for (const char* const name : {"zram0", "zram1", "vda"}) {
        std::filesystem::create_directories(folder_.path("block/") + name);
        tests::writeWholeFile(folder_.path("block/") + name + "/mm_stat",
                              "  40960    5000    8192        0    0  0  0\n");
    }
    std::filesystem::create_directories(folder_.path("block/zram2"));  // without a disk
    EXPECT_EQ(query(), 0);
    EXPECT_EQ(statistics_.compressor_page_count * host_.pageSize(), 16u * 1024 + 2 * 8192);
    EXPECT_EQ(statistics_.total_uncompressed_pages_in_compressor * host_.pageSize(), 64u * 1024 + 2 * 40960);
}

TEST_F(HostFilesTest, AnotherCountIsRefused) {
    EXPECT_EQ(query(kVMStatistics64Count - 1), EINVAL);
    EXPECT_EQ(query(kVMStatistics64Count + 1), EINVAL);
}

TEST_F(HostFilesTest, FailsWithoutItsFiles) {
    std::filesystem::remove(folder_.path("vmstat"));
    EXPECT_EQ(query(), ENOENT);
    std::filesystem::remove(folder_.path("meminfo"));
    EXPECT_EQ(query(), ENOENT);
}

TEST_F(HostFilesTest, TheBootTimeStandsBehindAnyNumberOfInterrupts) {
    std::string text = "cpu  1 2 3\nintr 1";
    for (int i = 0; i < 20'000; ++i) text += " 0";
    tests::writeWholeFile(folder_.path("stat"), text + "\nbtime 1768478400\nprocesses 5\n");
    const auto boot = host_.bootTimeSeconds();
    ASSERT_TRUE(boot);
    EXPECT_EQ(*boot, 1768478400);
}

TEST_F(HostFilesTest, ABootTimeThatIsNotToldFails) {
    EXPECT_EQ(host_.bootTimeSeconds().error().value, ENOENT);
    tests::writeWholeFile(folder_.path("stat"), "cpu  1 2 3\n");
    EXPECT_EQ(host_.bootTimeSeconds().error().value, EBADMSG);
}

TEST(RealHostTest, HasFreeMemoryAndBootedInThePast) {
    LinuxHostStatistics host;
    vm_statistics64 statistics{};
    ASSERT_TRUE(host.vmStatistics64(statistics, kVMStatistics64Count));
    EXPECT_GT(statistics.free_count, 0u);
    EXPECT_GT(statistics.wire_count, 0u);
    EXPECT_GT(statistics.faults, 0u);
    const auto boot = host.bootTimeSeconds();
    ASSERT_TRUE(boot);
    timespec up{};
    clock_gettime(CLOCK_BOOTTIME, &up);
    EXPECT_NEAR(static_cast<double>(time(nullptr) - *boot), static_cast<double>(up.tv_sec), 3);
}

}  // namespace
}  // namespace quorvix::linuxos
