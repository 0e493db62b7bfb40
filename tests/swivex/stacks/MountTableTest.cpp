#include "swivex/stacks/MountTable.h"

#include <gtest/gtest.h>

namespace quorvix::swivex::stacks {
namespace {

TEST(MountTable, KnowsWhatMayNotAnswer) {
    const std::set<Device> devices = devicesThatMayNotAnswer(
        "21 1 254:0 / / rw,noatime - ext4 /dev/vda rw\n"
        "22 21 0:20 / /proc rw - proc proc rw\n"
        "30 21 0:50 / /home/a/.mount rw,nosuid shared:7 - fuse.sshfs a@b: rw\n"
        "31 21 0:51 / /mnt/a\\040b rw - fuse x rw\n"
        "32 21 0:52 / /srv rw - nfs4 server:/srv rw\n"
        "33 21 8:17 / /usb rw - fuseblk /dev/sdb1 rw\n"
        "34 21 0:54 / /run rw - tmpfs tmpfs rw\n"
        "35 21 0:55 / / rw - overlay overlay rw,lowerdir=/fuse");
    EXPECT_EQ(devices, (std::set<Device>{{0, 50}, {0, 51}, {0, 52}, {8, 17}}));
}

TEST(MountTable, PassesOverWhatItDoesNotUnderstand) {
    EXPECT_TRUE(devicesThatMayNotAnswer("").empty());
    EXPECT_TRUE(devicesThatMayNotAnswer("\n - \n - fuse\n1 2 3 - fuse\n1 2 0:1 / / rw fuse fuse rw\n").empty());
}

}  // namespace
}  // namespace quorvix::swivex::stacks
