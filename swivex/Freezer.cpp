#include "swivex/Freezer.h"

#include <algorithm>
#include <string_view>

#include "swivex/SmallFile.h"

namespace quorvix::swivex {

namespace {

bool hasLine(const FreezerFile& file) {
    const auto text = readSmallFile(file.path);
    if (!text) return false;
    std::string_view rest = *text;
    while (!rest.empty()) {
        const std::string_view one = rest.substr(0, rest.find('\n'));
        if (one == file.line) return true;
        rest.remove_prefix(std::min(one.size() + 1, rest.size()));
    }
    return false;
}

bool isListed(std::string_view controllers, std::string_view wanted) {
    while (!controllers.empty()) {
        const std::string_view one = controllers.substr(0, controllers.find(','));
        if (one == wanted) return true;
        controllers.remove_prefix(std::min(one.size() + 1, controllers.size()));
    }
    return false;
}

}  // namespace

std::vector<FreezerFile> freezerFilesOf(std::string_view groups, const std::string& cgroupFolder) {
    std::vector<FreezerFile> files;
    // "0::/system.slice/x", "5:freezer:/x": a number, controllers, and the group, which may hold colons.
    while (!groups.empty()) {
        const std::string_view line = groups.substr(0, groups.find('\n'));
        groups.remove_prefix(std::min(line.size() + 1, groups.size()));
        const std::size_t first = line.find(':');
        const std::size_t second = first == std::string_view::npos ? first : line.find(':', first + 1);
        if (second == std::string_view::npos) continue;
        const std::string group(line.substr(second + 1));
        const std::string_view controllers = line.substr(first + 1, second - first - 1);
        if (controllers.empty()) {
            for (const char* const root : {"", "/unified"}) {
                files.push_back({cgroupFolder + root + group + "/cgroup.events", "frozen 1"});
            }
        } else if (isListed(controllers, "freezer")) {
            files.push_back({cgroupFolder + "/freezer" + group + "/freezer.state", "FROZEN"});
        }
    }
    return files;
}

bool isFrozen(const std::string& procFolder, const std::string& cgroupFolder, pid_t pid) {
    const auto groups = readSmallFile(procFolder + "/" + std::to_string(pid) + "/cgroup");
    return groups && std::ranges::any_of(freezerFilesOf(*groups, cgroupFolder), hasLine);
}

}  // namespace quorvix::swivex
