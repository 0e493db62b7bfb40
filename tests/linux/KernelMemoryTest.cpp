#include "platform/linux/KernelMemory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <map>

#include "platform/TextFormat.h"
#include "platform/linux/KernelMemoryText.h"
#include "platform/linux/ProcfsText.h"
#include "platform/linux/TextFile.h"
#include "tests/support/TemporaryFolder.h"

namespace quorvix::linuxos {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using SiteKind = WiredSite::Kind;

constexpr std::string_view kSlabInfo =
    R"(slabinfo - version: 2.1
# name            <active_objs> <num_objs> <objsize> <objperslab> <pagesperslab> : tunables <limit> <batchcount> <sharedfactor> : slabdata <active_slabs> <num_slabs> <sharedavail>
dentry            121380 121464    192   21    1 : tunables    0    0    0 : slabdata   5784   5784      0
bio-312               12     12    320   12    1 : tunables    0    0    0 : slabdata      1      1      0
two words "q"         12     12    320   12    4 : tunables    0    0    0 : slabdata      2      3      0
btrfs_delayed_node      0      0    312   13    1 : tunables    0    0    0 : slabdata      0      0      0
)";

TEST(SlabInfo, GivesEachCacheThePagesOfItsSlabs) {
    const auto zones = parseSlabInfo(kSlabInfo, 4096);
    ASSERT_EQ(zones.size(), 4u);
    EXPECT_EQ(zones[0].name, "dentry");
    EXPECT_EQ(zones[0].sizeBytes, 5784u * 4096);
    EXPECT_EQ(zones[2].name, "two words \"q\"");
    EXPECT_EQ(zones[2].sizeBytes, 3u * 4 * 4096);
    EXPECT_EQ(zones[3].sizeBytes, 0u);
}

TEST(SlabInfo, LinesThatAreNoCacheArePassedOver) {
    EXPECT_THAT(parseSlabInfo("", 4096), IsEmpty());
    EXPECT_THAT(
        parseSlabInfo("nonsense\n : tunables  : slabdata \n1 2 3 4 5 : tunables 0 0 0 : slabdata 1 1 0\n", 4096),
        IsEmpty());
    EXPECT_THAT(parseSlabInfo("a 1 1 1 1 x : tunables 0 0 0 : slabdata 1 1 0\n", 4096), IsEmpty());
    EXPECT_THAT(parseSlabInfo("a 1 1 1 1 1 : slabdata 1 1 0 : tunables 0 0 0\n", 4096), IsEmpty());
}

TEST(SlabInfo, AnOverflowIsTheLargestSizeAndNotASmallOne) {
    const auto zones = parseSlabInfo("a 1 1 1 1 9 : tunables 0 0 0 : slabdata 1 18446744073709551615 0\n", 4096);
    ASSERT_EQ(zones.size(), 1u);
    EXPECT_EQ(zones[0].sizeBytes, 18446744073709551615u);
}

constexpr std::string_view kVmallocInfo =
    R"(0x00000000b4014f8f-0x000000006d1d37ff   20480 irq_init_percpu_irqstack+0xca/0x100 vmap
0x000000006d1d37ff-0x000000002f15b5ff    8192 acpi_os_map_iomem+0x1bc/0x1e0 phys=0x00000000000a0000 ioremap
0x00000000548b9624-0x00000000d6ba8e34   20480 kernel_clone+0x94/0x3e0 pages=4 vmalloc N0=4
0x00000000c0000000-0x00000000c0003000   12288 htab_map_alloc+0x2e4/0x5a0 pages=2 vmalloc N0=2
0x00000000c0003000-0x00000000c0005000    8192 htab_map_alloc+0xf6/0x5a0 pages=1 vmalloc N0=1
0x00000000c0005000-0x00000000c0007000    8192 load_module+0x1/0x2 pages=1 vmalloc N0=1
0x00000000c0007000-0x00000000c0009000    8192 setup_ring+0x1/0x2 [driver] pages=1 vmalloc N0=1
0x00000000c0009000-0x00000000c000b000    8192 0xffffffffc0001234 pages=1 vmalloc
0x00000000c000b000-0x00000000c000d000    8192 unpurged vm_area
0x00000000c000d000-0x00000000c000f000    8192 vm_map_ram
)";

TEST(VmallocInfo, GroupsThePagesTakenByFunction) {
    const auto callers = parseVmallocInfo(kVmallocInfo, 4096);
    const auto sizeOf = [&](std::string_view symbol) -> std::uint64_t {
        for (const VmallocCaller& caller : callers) {
            if (caller.symbol == symbol) return caller.sizeBytes;
        }
        return 0;
    };
    EXPECT_EQ(callers.size(), 5u);
    EXPECT_EQ(sizeOf("htab_map_alloc"), 3u * 4096) << "without guard pages";
    EXPECT_EQ(sizeOf("kernel_clone"), 4u * 4096);
    EXPECT_EQ(sizeOf("setup_ring"), 4096u);
    EXPECT_EQ(sizeOf("acpi_os_map_iomem"), 0u) << "device memory";
    EXPECT_EQ(sizeOf("irq_init_percpu_irqstack"), 0u) << "pages of others";
    EXPECT_EQ(callers[0].symbol, "");
    EXPECT_EQ(callers[0].address, 0xffffffffc0001234u);
}

TEST(VmallocInfo, DamagedLinesArePassedOver) {
    for (const char* text : {"", "0x1-0x2", "0x1-0x2 4096", "0x1-0x2 4096 pages=1", "0x1-0x2 4096 f+0x1/0x2 pages=x",
                             "0x1-0x2 4096 0xzz pages=1", "4096 f+0x1/0x2 pages=1"}) {
        EXPECT_THAT(parseVmallocInfo(text, 4096), IsEmpty()) << text;
    }
}

TEST(VmallocInfo, StacksAndModulesAreToldApart) {
    EXPECT_TRUE(allocatesKernelStacks("kernel_clone"));
    EXPECT_TRUE(allocatesKernelStacks("dup_task_struct.isra.0"));
    EXPECT_FALSE(allocatesKernelStacks("kernel_clone_args"));
    EXPECT_TRUE(allocatesModules("module_alloc"));
    EXPECT_FALSE(allocatesModules("htab_map_alloc"));
}

TEST(Modules, AreListedInTheirOrder) {
    const auto modules = parseModules(
        "ext4 737280 2 - Live 0xffffffffc0a00000\nbad line here\nmbcache 16384 1 ext4, Live 0x0000000000000000\n");
    ASSERT_EQ(modules.size(), 2u);
    EXPECT_EQ(modules[0].name, "ext4");
    EXPECT_EQ(modules[1].sizeBytes, 16384u);
}

// A made-up /proc.
class ScriptedKernel : public testing::Test {
protected:
    void write(const std::string& name, std::string_view text) {
        tests::writeWholeFile(folder_.path(name), std::string(text));
    }
    void writeEverything() {
        write("slabinfo", kSlabInfo);
        write("vmallocinfo", kVmallocInfo);
        write("meminfo",
              "Slab: 30000 kB\nKernelStack: 16 kB\nPageTables: 8 kB\nSecPageTables: 4 kB\nPercpu: 20 kB\n"
              "VmallocUsed: 48 kB\nMlocked: 12 kB\nZswap: 5 kB\n");
        write("vmstat", "nr_memmap_pages 1\nnr_memmap_boot_pages 2\n");
        write("modules", "driver 8192 0 - Live 0x0\next4 16384 0 - Live 0x0\n");
    }
    static std::uint64_t sizeOf(const KernelMemoryInformation& information, SiteKind kind, std::uint64_t number) {
        for (const WiredSite& site : information.sites) {
            if (site.kind == kind && site.number == number) return site.sizeBytes;
        }
        return 0;
    }

    tests::TemporaryFolder folder_;
    LinuxKernelMemory memory_{folder_.path()};
    const std::uint64_t page_ = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
};

TEST_F(ScriptedKernel, LargeAllocationsAreAZoneOfTheirOwn) {
    writeEverything();
    const auto zones = memory_.information().zones;
    ASSERT_EQ(zones.size(), 5u);
    EXPECT_EQ(zones[4].name, "kmalloc-large");
    EXPECT_EQ(zones[4].sizeBytes, 30000u * 1024 - (5784 + 1 + 12) * page_);
}

TEST_F(ScriptedKernel, ASumThatIsAlreadyLargerHasNoSuchZone) {
    write("slabinfo", kSlabInfo);
    write("meminfo", "Slab: 1 kB\n");
    EXPECT_EQ(memory_.information().zones.size(), 4u);
}

TEST_F(ScriptedKernel, TagsComeFromMeminfo) {
    writeEverything();
    const auto information = memory_.information();
    EXPECT_EQ(sizeOf(information, SiteKind::kernelTag, 8), 16u * 1024);
    EXPECT_EQ(sizeOf(information, SiteKind::kernelTag, 9), 20u * 1024);
    EXPECT_EQ(sizeOf(information, SiteKind::kernelTag, 10), 3 * page_);
    EXPECT_EQ(sizeOf(information, SiteKind::kernelTag, 11), 12u * 1024);
    EXPECT_EQ(sizeOf(information, SiteKind::kernelTag, 12), 30000u * 1024);
    EXPECT_EQ(sizeOf(information, SiteKind::kernelTag, 14), 5u * 1024);
    EXPECT_EQ(sizeOf(information, SiteKind::kernelTag, 24), 12u * 1024);
}

TEST_F(ScriptedKernel, FunctionsHaveTheirNamesAndNothingCountsTwice) {
    writeEverything();
    const auto information = memory_.information();
    const auto resolver = memory_.makeSymbolResolver();
    std::map<std::string, std::uint64_t> sizes;
    for (const WiredSite& site : information.sites) {
        if (site.kind != SiteKind::kernelAddress) continue;
        sizes[resolver->symbolAt(site.number).value_or(formatText("%llx", site.number))] += site.sizeBytes;
    }
    EXPECT_THAT(sizes, ElementsAre(Pair("ffffffffc0001234", page_), Pair("htab_map_alloc", 3 * page_),
                                   Pair("setup_ring", page_)))
        << "neither stacks nor modules";
}

TEST_F(ScriptedKernel, NoResolverKnowsTheNamesOfAnotherSnapshot) {
    writeEverything();
    (void)memory_.information();
    EXPECT_EQ(memory_.makeSymbolResolver()->symbolAt(1), "htab_map_alloc");
    EXPECT_EQ(memory_.makeSymbolResolver()->symbolAt(1), std::nullopt) << "they went with the first";
    write("vmallocinfo", "");
    (void)memory_.information();
    EXPECT_EQ(memory_.makeSymbolResolver()->symbolAt(1), std::nullopt);
}

TEST_F(ScriptedKernel, ModulesAreExtensionsByTheirPlace) {
    writeEverything();
    const auto information = memory_.information();
    EXPECT_EQ(sizeOf(information, SiteKind::kernelExtension, 1), 8192u);
    EXPECT_EQ(sizeOf(information, SiteKind::kernelExtension, 2), 16384u);
    const auto extensions = memory_.loadedExtensions();
    ASSERT_EQ(extensions.size(), 2u);
    EXPECT_EQ(extensions[0].loadTag, 1u);
    EXPECT_EQ(extensions[0].bundleIdentifier, "driver");
    EXPECT_EQ(extensions[1].bundleIdentifier, "ext4");
}

TEST_F(ScriptedKernel, WithoutTheModuleListTheirMemoryCountsAsOthers) {
    writeEverything();
    ASSERT_EQ(unlink(folder_.path("modules").c_str()), 0);
    const auto information = memory_.information();
    const auto resolver = memory_.makeSymbolResolver();
    bool found = false;
    for (const WiredSite& site : information.sites) {
        found |= site.kind == SiteKind::kernelAddress && resolver->symbolAt(site.number) == "load_module";
    }
    EXPECT_TRUE(found);
    EXPECT_THAT(memory_.loadedExtensions(), IsEmpty());
}

TEST_F(ScriptedKernel, AreasThatCannotBeReadAreOneTag) {
    writeEverything();
    ASSERT_EQ(unlink(folder_.path("vmallocinfo").c_str()), 0);
    EXPECT_EQ(sizeOf(memory_.information(), SiteKind::kernelTag, 13), 32u * 1024) << "48 kB less 16 kB of stacks";
}

TEST_F(ScriptedKernel, TooManyFunctionsAreSummedUp) {
    writeEverything();
    std::string areas;
    for (std::size_t i = 0; i < LinuxKernelMemory::kMaximumCallers + 3; ++i) {
        areas += "0x1-0x2 8192 f" + std::to_string(i) + "+0x1/0x2 pages=1 vmalloc\n";
    }
    write("vmallocinfo", areas);
    const auto information = memory_.information();
    EXPECT_EQ(sizeOf(information, SiteKind::kernelTag, 13), 3 * page_);
    EXPECT_EQ(std::ranges::count(information.sites, SiteKind::kernelAddress, &WiredSite::kind),
              static_cast<std::ptrdiff_t>(LinuxKernelMemory::kMaximumCallers));
}

TEST_F(ScriptedKernel, WithoutAnySourceThereIsNothing) {
    const auto information = memory_.information();
    EXPECT_THAT(information.zones, IsEmpty());
    for (const WiredSite& site : information.sites) EXPECT_EQ(site.sizeBytes, 0u);
    EXPECT_THAT(memory_.loadedExtensions(), IsEmpty());
    EXPECT_EQ(memory_.makeSymbolResolver()->symbolAt(1), std::nullopt);
}

// The kernel's own files.

TEST(RealKernelMemory, ZonesAreAtMostTheSlabFigure) {
    if (access("/proc/slabinfo", R_OK) != 0) GTEST_SKIP() << "needs root and slabinfo";
    LinuxKernelMemory memory;
    const auto information = memory.information();
    const auto meminfo = readTextFile("/proc/meminfo", 65536);
    ASSERT_TRUE(meminfo);
    std::uint64_t sum = 0;
    for (const KernelZone& zone : information.zones) sum += zone.sizeBytes;
    const std::uint64_t slab = numberOfLine(*meminfo, "Slab").value() * 1024;
    // What others allocate and free between the two readings.
    EXPECT_LE(sum, slab + slab / 50);
    EXPECT_GE(sum, slab - slab / 50);
    EXPECT_GT(information.zones.size(), 10u);
}

TEST(RealKernelMemory, EveryFunctionOfTheAreasHasAName) {
    if (access("/proc/vmallocinfo", R_OK) != 0) GTEST_SKIP() << "needs root and vmallocinfo";
    LinuxKernelMemory memory;
    const auto information = memory.information();
    const auto resolver = memory.makeSymbolResolver();
    std::size_t sites = 0;
    for (const WiredSite& site : information.sites) {
        if (site.kind != SiteKind::kernelAddress) continue;
        ++sites;
        EXPECT_TRUE(resolver->symbolAt(site.number)) << std::hex << site.number;
    }
    EXPECT_GT(sites, 0u);
}

}  // namespace
}  // namespace quorvix::linuxos
