#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <limits>
#include <map>
#include <set>

#include "platform/linux/KernelMemory.h"
#include "platform/linux/ProcessMemory.h"
#include "platform/sim/SimKernelMemory.h"
#include "platform/sim/SimProcessMemory.h"

namespace quorvix::memory_contract {
namespace {

constexpr std::int32_t kNobody = std::numeric_limits<std::int32_t>::max();
using Kind = WiredSite::Kind;

struct LinuxMemory {
    linuxos::LinuxProcessMemory processes;
    linuxos::LinuxKernelMemory kernel;
};

// A device on which this process runs.
struct SimMemory {
    SimMemory() {
        processes.processes = {{.pid = 1, .path = "/sbin/init", .footprintBytes = 1 << 20},
                               {.pid = getpid(), .path = "/bin/tests", .footprintBytes = 1 << 20}};
        kernel.memory = {
            .zones = {{"dentry", 4096}, {"inode", 8192}},
            .sites = {
                {Kind::kernelTag, 8, 16384}, {Kind::kernelExtension, 2, 4096}, {Kind::kernelAddress, 0x1000, 4096}}};
        kernel.extensions = {{1, "ext4"}, {2, "driver"}};
        kernel.symbols = {{0x1000, "kernel_clone"}};
    }
    sim::SimProcessMemory processes;
    sim::SimKernelMemory kernel;
};

template <class Memory>
class MemoryContract : public testing::Test {
protected:
    Memory memory_;
};

using Services = testing::Types<LinuxMemory, SimMemory>;
TYPED_TEST_SUITE(MemoryContract, Services);

TYPED_TEST(MemoryContract, EveryProcessIsListedOnceThisOneAmongThem) {
    const auto list = this->memory_.processes.priorityList();
    ASSERT_TRUE(list);
    std::set<std::int32_t> pids;
    for (const MemoryPriority& entry : *list) EXPECT_TRUE(pids.insert(entry.pid).second) << entry.pid;
    EXPECT_TRUE(pids.contains(getpid()));
    EXPECT_FALSE(pids.contains(0));
}

TYPED_TEST(MemoryContract, AListedProcessHasAPathAndAFootprint) {
    ASSERT_TRUE(this->memory_.processes.priorityList());
    const auto path = this->memory_.processes.executablePath(getpid());
    ASSERT_TRUE(path);
    EXPECT_TRUE(path->starts_with('/')) << *path;
    const auto footprint = this->memory_.processes.physicalFootprint(getpid());
    ASSERT_TRUE(footprint);
    EXPECT_GE(*footprint, 65536u);
    EXPECT_EQ(this->memory_.processes.assertions(getpid()), 0u);
}

TYPED_TEST(MemoryContract, OfAProcessThatIsNotThereThereIsNothing) {
    ASSERT_TRUE(this->memory_.processes.priorityList());
    const auto path = this->memory_.processes.executablePath(kNobody);
    ASSERT_FALSE(path);
    EXPECT_EQ(path.error().value, ESRCH);
    const auto footprint = this->memory_.processes.physicalFootprint(kNobody);
    ASSERT_FALSE(footprint);
    EXPECT_EQ(footprint.error().value, ESRCH);
    EXPECT_EQ(this->memory_.processes.assertions(kNobody), 0u);
}

TYPED_TEST(MemoryContract, EveryExtensionSiteHasItsExtensionAndNoLoadTagComesTwice) {
    const auto information = this->memory_.kernel.information();
    std::map<std::uint64_t, std::string> extensions;
    for (const KernelExtension& extension : this->memory_.kernel.loadedExtensions()) {
        EXPECT_FALSE(extension.bundleIdentifier.empty());
        EXPECT_TRUE(extensions.emplace(extension.loadTag, extension.bundleIdentifier).second) << extension.loadTag;
    }
    for (const WiredSite& site : information.sites) {
        if (site.kind == Kind::kernelExtension) {
            EXPECT_TRUE(extensions.contains(site.number)) << site.number;
        }
    }
}

TYPED_TEST(MemoryContract, NoTwoSitesAreTheSame) {
    std::set<std::pair<Kind, std::uint64_t>> sites;
    for (const WiredSite& site : this->memory_.kernel.information().sites) {
        EXPECT_TRUE(sites.emplace(site.kind, site.number).second) << site.number;
    }
    EXPECT_FALSE(sites.empty());
}

TYPED_TEST(MemoryContract, AnAddressWithoutASymbolHasNoName) {
    (void)this->memory_.kernel.information();
    const auto resolver = this->memory_.kernel.makeSymbolResolver();
    ASSERT_TRUE(resolver);
    EXPECT_EQ(resolver->symbolAt(0), std::nullopt);
    EXPECT_EQ(resolver->symbolAt(std::numeric_limits<std::uint64_t>::max()), std::nullopt);
}

TYPED_TEST(MemoryContract, EveryZoneHasAName) {
    for (const KernelZone& zone : this->memory_.kernel.information().zones) EXPECT_FALSE(zone.name.empty());
}

}  // namespace
}  // namespace quorvix::memory_contract
