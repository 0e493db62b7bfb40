#include "swivex/stacks/MountTable.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <string>

namespace quorvix::swivex::stacks {

namespace {

// A FUSE file system is a program that may hang, and may be what the process hangs at.
bool mayNeverAnswer(std::string_view type) {
    constexpr std::array<std::string_view, 8> kTypes = {"fuseblk", "nfs", "nfs4", "cifs", "smb3", "ceph", "afs", "9p"};
    return type == "fuse" || type.starts_with("fuse.") || std::find(kTypes.begin(), kTypes.end(), type) != kTypes.end();
}

}  // namespace

std::set<Device> devicesThatMayNotAnswer(std::string_view mounts) {
    // Lines like "36 35 98:0 /mnt1 /mnt2 rw,noatime master:1 - ext3 /dev/root rw".
    std::set<Device> devices;
    while (!mounts.empty()) {
        const std::size_t end = std::min(mounts.find('\n'), mounts.size());
        const std::string line(mounts.substr(0, end));
        mounts.remove_prefix(std::min(end + 1, mounts.size()));
        Device device;
        const std::size_t separator = line.find(" - ");
        if (separator == std::string::npos ||
            std::sscanf(line.c_str(), "%*u %*u %u:%u", &device.first, &device.second) != 2) {
            continue;
        }
        const std::size_t type = separator + 3;
        if (mayNeverAnswer(std::string_view(line).substr(type, line.find(' ', type) - type))) devices.insert(device);
    }
    return devices;
}

}  // namespace quorvix::swivex::stacks
