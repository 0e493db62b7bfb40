#include "platform/linux/SharedMemory.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/memfd.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "tests/support/MessageSocket.h"
#include "tests/support/TemporaryFolder.h"

namespace quorvix::linuxos {
namespace {

using tests::makeMemory;

constexpr std::uint64_t kPageBytes = 4096;

class MappedRegionsTest : public testing::Test {
protected:
    bool maps(int descriptor) {
        const SharedMemoryMapping mapping = regions_.map(descriptor);
        regions_.unmap(mapping.address, mapping.length);
        return mapping.address != nullptr;
    }
    // Reads the byte at the offset under guard.
    bool survivesRead(const SharedMemoryMapping& mapping, std::uint64_t offset) {
        auto* at = static_cast<volatile std::uint8_t*>(mapping.address) + offset;
        return regions_.guarded(
            mapping.address, [](void* where) noexcept { (void)*static_cast<volatile std::uint8_t*>(where); },
            const_cast<std::uint8_t*>(at));
    }

    MappedRegions regions_;
};

TEST_F(MappedRegionsTest, OnlyASealedMemfdIsMapped) {
    EXPECT_TRUE(maps(makeMemory(100).get()));
    EXPECT_TRUE(maps(makeMemory(100, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL).get()));
    EXPECT_FALSE(maps(makeMemory(100, 0).get()));
    EXPECT_FALSE(maps(makeMemory(100, F_SEAL_GROW).get()));
    EXPECT_FALSE(maps(-1));
    EXPECT_EQ(regions_.counters().refusedKind, 3u);
}

TEST_F(MappedRegionsTest, MemorySealedAgainstWritingIsNotMapped) {
    EXPECT_FALSE(maps(makeMemory(100, F_SEAL_SHRINK | F_SEAL_WRITE).get()));
    EXPECT_FALSE(maps(makeMemory(100, F_SEAL_SHRINK | F_SEAL_FUTURE_WRITE).get()));
    EXPECT_EQ(regions_.counters().mappings, 0u);
}

TEST_F(MappedRegionsTest, ADescriptorOpenedForReadingOnlyIsNotMapped) {
    const Descriptor memory = makeMemory(100);
    const std::string path = "/proc/self/fd/" + std::to_string(memory.get());
    const Descriptor readOnly(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_TRUE(readOnly);
    EXPECT_FALSE(maps(readOnly.get()));
    const Descriptor readWrite(open(path.c_str(), O_RDWR | O_CLOEXEC));
    EXPECT_TRUE(maps(readWrite.get()));
}

TEST_F(MappedRegionsTest, FilesPipesAndDirectoriesAreNotMapped) {
    const tests::TemporaryFolder folder;
    tests::writeWholeFile(folder.path("file"), "content");
    EXPECT_FALSE(maps(Descriptor(open(folder.path("file").c_str(), O_RDWR | O_CLOEXEC)).get()));
    EXPECT_FALSE(maps(Descriptor(open(folder.path().c_str(), O_RDONLY | O_CLOEXEC)).get()));
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const Descriptor reading(ends[0]);
    const Descriptor writing(ends[1]);
    EXPECT_FALSE(maps(reading.get()));
}

TEST_F(MappedRegionsTest, HugePagesAreNotMappedThoughTheyTakeTheSeal) {
    const Descriptor huge(memfd_create("huge", MFD_CLOEXEC | MFD_ALLOW_SEALING | MFD_HUGETLB));
    if (!huge || fcntl(huge.get(), F_ADD_SEALS, F_SEAL_SHRINK) != 0) GTEST_SKIP() << "no huge pages on this kernel";
    EXPECT_FALSE(maps(huge.get()));
}

TEST_F(MappedRegionsTest, ASealedMemoryCannotBeTakenAwayAndAHolePunchedIntoItReadsZeros) {
    const Descriptor memory = makeMemory(2 * kPageBytes);
    const std::uint8_t seven = 7;
    ASSERT_EQ(pwrite(memory.get(), &seven, 1, kPageBytes), 1);
    const SharedMemoryMapping mapping = regions_.map(memory.get());
    EXPECT_EQ(ftruncate(memory.get(), 0), -1);
    ASSERT_EQ(fallocate(memory.get(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, 0, 2 * kPageBytes), 0);
    EXPECT_TRUE(survivesRead(mapping, kPageBytes));
    EXPECT_EQ(static_cast<std::uint8_t*>(mapping.address)[kPageBytes], 0);
    regions_.unmap(mapping.address, mapping.length);
}

TEST_F(MappedRegionsTest, GrowingLaterDoesNotGrowTheMapping) {
    const Descriptor memory = makeMemory(kPageBytes);
    const SharedMemoryMapping mapping = regions_.map(memory.get());
    ASSERT_EQ(ftruncate(memory.get(), 4 * kPageBytes), 0);
    EXPECT_EQ(mapping.length, kPageBytes);
    EXPECT_TRUE(survivesRead(mapping, kPageBytes - 1));
    EXPECT_FALSE(survivesRead(mapping, kPageBytes));
    regions_.unmap(mapping.address, mapping.length);
}

TEST_F(MappedRegionsTest, AThousandFaultsAreSurvivedAndCounted) {
    const SharedMemoryMapping mapping = regions_.map(makeMemory(kPageBytes).get());
    const std::uint64_t before = regions_.counters().faults;
    for (int i = 0; i < 1000; ++i) {
        ASSERT_FALSE(survivesRead(mapping, kPageBytes));
        ASSERT_TRUE(survivesRead(mapping, 0));
    }
    EXPECT_EQ(regions_.counters().faults - before, 1000u);
    regions_.unmap(mapping.address, mapping.length);
}

TEST_F(MappedRegionsTest, BytesMappedInAllAreBounded) {
    MappedRegions small(3 * kPageBytes);
    const Descriptor memory = makeMemory(kPageBytes + 1);  // two pages
    const SharedMemoryMapping first = small.map(memory.get());
    EXPECT_NE(first.address, nullptr);
    EXPECT_EQ(small.map(memory.get()).address, nullptr);
    const SharedMemoryMapping onePage = small.map(makeMemory(kPageBytes).get());
    EXPECT_NE(onePage.address, nullptr);
    EXPECT_EQ(small.map(makeMemory(1).get()).address, nullptr);
    EXPECT_EQ(small.counters().refusedFull, 2u);
    EXPECT_EQ(small.counters().mappedBytes, 3 * kPageBytes);
    small.unmap(first.address, first.length);
    EXPECT_EQ(small.counters().mappedBytes, kPageBytes);
    EXPECT_NE(small.map(memory.get()).address, nullptr);
    EXPECT_EQ(MappedRegions::kMaximumMappedBytes, 256u * 1024 * 1024);
}

TEST_F(MappedRegionsTest, MappingsGoWithTheService) {
    SharedMemoryMapping mapping;
    {
        MappedRegions shortLived;
        mapping = shortLived.map(makeMemory(kPageBytes).get());
    }
    unsigned char resident = 0;
    EXPECT_EQ(mincore(mapping.address, kPageBytes, &resident), -1);
    EXPECT_EQ(errno, ENOMEM);
}

}  // namespace
}  // namespace quorvix::linuxos
