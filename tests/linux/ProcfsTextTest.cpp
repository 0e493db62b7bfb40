#include "platform/linux/ProcfsText.h"

#include <gtest/gtest.h>

#include <string>

#include "platform/linux/ProcessSamples.h"

namespace quorvix::linuxos {
namespace {

std::string statWithName(const std::string& name) {
    return "31479 (" + name +
           ") R 31379 31379 24206 0 -1 4194304 101 0 7 0 12 34 0 0 25 -5 3 0 549132 3133440 380 18446744073709551615 "
           "94715446280192 94715446300073 140725552926480 0 0 0 0 0 0 0 0 0 17 0 50 2 0 0 0 94715446316080 "
           "94715446317696 94716072267776 140725552929162 140725552929234 140725552929234 140725552930795 0\n";
}

TEST(ProcfsTextTest, ReadsAStat) {
    const std::string text = statWithName("cat");
    const auto stat = parseStat(text);
    ASSERT_TRUE(stat);
    EXPECT_EQ(stat->comm, "cat");
    EXPECT_EQ(stat->flags, 4194304u);
    EXPECT_EQ(stat->majorFaults, 7u);
    EXPECT_EQ(stat->userTicks, 12u);
    EXPECT_EQ(stat->systemTicks, 34u);
    EXPECT_EQ(stat->nice, -5);
    EXPECT_EQ(stat->threadCount, 3u);
    EXPECT_EQ(stat->startUnits, 549132u);
    EXPECT_EQ(stat->policy, 2u);
}

TEST(ProcfsTextTest, ANameMayLookLikeTheRestOfTheLine) {
    for (const std::string name : {"a b", ")", "(", ") R 1 2 3", "line\nfeed", "", "\xff\xfe", "x) S 1 (y"}) {
        const std::string text = statWithName(name);
        const auto stat = parseStat(text);
        ASSERT_TRUE(stat) << name;
        EXPECT_EQ(stat->comm, name);
        EXPECT_EQ(stat->userTicks, 12u) << name;
    }
}

TEST(ProcfsTextTest, ACutStatIsNone) {
    const std::string text = statWithName("cat");
    const std::size_t policyEnds = text.find(" 50 2 ") + 5;
    EXPECT_TRUE(parseStat(std::string_view(text).substr(0, policyEnds)));
    for (std::size_t length = 0; length < policyEnds - 1; ++length) {
        EXPECT_FALSE(parseStat(std::string_view(text).substr(0, length))) << length;
    }
    EXPECT_FALSE(parseStat("1 ) R ( 2"));
}

TEST(ProcfsTextTest, ReadsASchedstat) {
    EXPECT_EQ(parseSchedstat("863967 44187 1\n"), 863967u);
    EXPECT_EQ(parseSchedstat("18446744073709551615 0 0\n"), 18446744073709551615u);
    EXPECT_EQ(parseSchedstat(""), std::nullopt);
    EXPECT_EQ(parseSchedstat("x"), std::nullopt);
}

TEST(ProcfsTextTest, ReadsTheDiskBytesAndNotTheCancelledOnes) {
    const IoText io = parseIo(
        "rchar: 7278\nwchar: 302\nsyscr: 12\nsyscw: 1\nread_bytes: 4096\ncancelled_write_bytes: 5\nwrite_bytes: "
        "8192\n");
    EXPECT_EQ(io.readBytes, 4096u);
    EXPECT_EQ(io.writeBytes, 8192u);
    EXPECT_EQ(parseIo("").readBytes, 0u);
}

TEST(ProcfsTextTest, ReadsTheSizes) {
    const StatusText sizes = parseStatus(
        "Name:\tVmLck\nUmask:\t0022\nVmPeak:\t    3060 kB\nVmSize:\t    3060 kB\nVmLck:\t       8 kB\nVmPin:\t      16 "
        "kB\n"
        "VmHWM:\t    1692 kB\nVmRSS:\t    1692 kB\nRssAnon:\t     116 kB\nRssFile:\t    1576 kB\nRssShmem:\t       0 "
        "kB\n"
        "VmSwap:\t      4 kB\n");
    EXPECT_EQ(sizes.locked, 8u * 1024);
    EXPECT_EQ(sizes.pinned, 16u * 1024);
    EXPECT_EQ(sizes.resident, 1692u * 1024);
    EXPECT_EQ(sizes.anonymous, 116u * 1024);
    EXPECT_EQ(sizes.swapped, 4u * 1024);
}

TEST(ProcfsTextTest, AKernelThreadHasNoSizes) { EXPECT_EQ(parseStatus("Name:\tkthreadd\nThreads:\t1\n").resident, 0u); }

TEST(ProcfsTextTest, ALineIsFoundByItsWholeKey) {
    constexpr std::string_view kText = "Active(anon):  1 kB\nInactive: 3 kB\nActive:   2 kB\nnr_x 5\nnr_xy 6\n";
    EXPECT_EQ(numberOfLine(kText, "Active"), 2u);
    EXPECT_EQ(numberOfLine(kText, "Inactive"), 3u);
    EXPECT_EQ(numberOfLine(kText, "nr_x"), 5u);
    EXPECT_EQ(numberOfLine(kText, "nr"), std::nullopt);
    EXPECT_EQ(numberOfLine("a:\n", "a"), std::nullopt);
}

TEST(ProcessNameTest, AKernelWorkersNameIsWithoutItsWork) {
    EXPECT_EQ(kernelThreadComm("kworker/0:1-events"), "kworker/0:1");
    EXPECT_EQ(kernelThreadComm("kworker/u8:3+flush-254:0"), "kworker/u8:3");
    EXPECT_EQ(kernelThreadComm("kworker/0:1H-kblockd"), "kworker/0:1H");
    EXPECT_EQ(kernelThreadComm("kworker/R-mm_percpu_wq"), "kworker/R-mm_pe");
    EXPECT_EQ(kernelThreadComm("ksoftirqd/0"), "ksoftirqd/0");
}

std::string nameOf(std::string_view comm, std::string_view path) {
    ProcessSample process{};
    setProcessName(process, comm);
    completeProcessName(process, comm, path);
    return process.name.data();
}

TEST(ProcessNameTest, ACutNameIsCompletedFromItsExecutable) {
    EXPECT_EQ(nameOf("a-very-long-nam", "/usr/bin/a-very-long-name"), "a-very-long-name");
    EXPECT_EQ(nameOf("a-very-long-nam", "/usr/bin/a-very-long-name (deleted)"), "a-very-long-name");
    EXPECT_EQ(nameOf("a-very-long-nam", "/usr/bin/another"), "a-very-long-nam");
    EXPECT_EQ(nameOf("a-very-long-na", "/usr/bin/a-very-long-name"), "a-very-long-na");
    EXPECT_EQ(nameOf("a-very-long-nam", ""), "a-very-long-nam");
}

TEST(ProcessNameTest, ANameEndsAfter31Characters) {
    const std::string name = "abcdefghijklmnopqrstuvwxyz0123456789";
    EXPECT_EQ(nameOf(name.substr(0, 15), "/" + name.substr(0, 30)), name.substr(0, 30));
    EXPECT_EQ(nameOf(name.substr(0, 15), "/" + name.substr(0, 31)), name.substr(0, 31));
    EXPECT_EQ(nameOf(name.substr(0, 15), "/" + name.substr(0, 32)), name.substr(0, 31));
}

}  // namespace
}  // namespace quorvix::linuxos
