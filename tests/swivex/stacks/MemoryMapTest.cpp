#include "swivex/stacks/MemoryMap.h"

#include <gtest/gtest.h>

namespace quorvix::swivex::stacks {
namespace {

constexpr const char kMaps[] =
    "55d0c0a00000-55d0c0a02000 r--p 00000000 fe:00 1234                       /usr/bin/app\n"
    "55d0c0a02000-55d0c0a06000 r-xp 00002000 fe:00 1234                       /usr/bin/app\n"
    "7f0000000000-7f0000021000 rw-p 00000000 00:00 0 \n"
    "7f1000000000-7f1000001000 --xp 00010000 103:1f 18446744073709551615      /opt/a b\\012c (deleted)\n"
    "7fff0a000000-7fff0a021000 rw-p 00000000 00:00 0                          [stack]\n"
    "7fff0a0c0000-7fff0a0c2000 r-xp 00000000 00:00 0                          [vdso]\n";

TEST(MemoryMap, IsReadLineByLine) {
    const MemoryMap map = MemoryMap::parse(kMaps);
    ASSERT_EQ(map.mappings().size(), 6u);
    const Mapping& code = map.mappings()[1];
    EXPECT_EQ(code.start, 0x55d0c0a02000u);
    EXPECT_EQ(code.end, 0x55d0c0a06000u);
    EXPECT_EQ(code.fileOffset, 0x2000u);
    EXPECT_EQ(code.deviceMajor, 0xfeu);
    EXPECT_EQ(code.inode, 1234u);
    EXPECT_TRUE(code.isReadable);
    EXPECT_TRUE(code.isExecutable);
    EXPECT_EQ(code.path, "/usr/bin/app");
    EXPECT_FALSE(map.mappings()[0].isExecutable);
    EXPECT_EQ(map.mappings()[5].path, "[vdso]");
}

TEST(MemoryMap, GivesAPathAsTheFileIsCalled) {
    const Mapping mapping = MemoryMap::parse(kMaps).mappings()[3];
    EXPECT_EQ(mapping.path, "/opt/a b\nc");
    EXPECT_EQ(mapping.inode, 18446744073709551615u);
    EXPECT_EQ(mapping.deviceMajor, 0x103u);
    EXPECT_EQ(mapping.deviceMinor, 0x1fu);
    EXPECT_FALSE(mapping.isReadable);
}

TEST(MemoryMap, FindsWhatAnAddressLiesIn) {
    const MemoryMap map = MemoryMap::parse(kMaps);
    EXPECT_EQ(map.find(0x55d0c09fffff), nullptr);
    EXPECT_EQ(map.find(0x55d0c0a00000), &map.mappings()[0]);
    EXPECT_EQ(map.find(0x55d0c0a01fff), &map.mappings()[0]);
    EXPECT_EQ(map.find(0x55d0c0a02000), &map.mappings()[1]);
    EXPECT_EQ(map.find(0x55d0c0a06000), nullptr);
    EXPECT_EQ(map.find(0x7fff0a0c1fff), &map.mappings()[5]);
    EXPECT_EQ(map.find(0x7fff0a0c2000), nullptr);
    EXPECT_EQ(MemoryMap().find(0), nullptr);
}

TEST(MemoryMap, PassesOverWhatItDoesNotUnderstand) {
    EXPECT_EQ(MemoryMap::parse("").mappings().size(), 0u);
    EXPECT_EQ(MemoryMap::parse("\n\nnothing\n1-\n-\n1-2\n1-2 r-xp\n1-2 r-xp 0 0:0\n").mappings().size(), 0u);
    EXPECT_EQ(MemoryMap::parse("2-1 r-xp 00000000 00:00 0 \n").mappings().size(), 0u);
    EXPECT_EQ(MemoryMap::parse("11111111111111111-2 r-xp 00000000 00:00 0 \n").mappings().size(), 0u);
    // Cut off in the middle of a line.
    EXPECT_EQ(MemoryMap::parse(std::string_view(kMaps).substr(0, 100)).mappings().size(), 1u);
}

}  // namespace
}  // namespace quorvix::swivex::stacks
