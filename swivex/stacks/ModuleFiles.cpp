#include "swivex/stacks/ModuleFiles.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <algorithm>
#include <cstdio>
#include <set>
#include <utility>

#include "swivex/stacks/MountTable.h"
#include "swivex/stacks/ProcFile.h"
#include "swivex/stacks/RemoteMemory.h"

namespace quorvix::swivex::stacks {

namespace {

constexpr std::size_t kMostMountBytes = 1 << 20;
constexpr std::size_t kMostModulesOfAProcess = 4096;
constexpr std::size_t kMostVdsoBytes = 64 * 1024;
constexpr const char kVdso[] = "[vdso]";

// Opened without a look at what it is, and so without any effect.
Descriptor findByMapping(pid_t pid, const Mapping& mapping) {
    char path[96];
    std::snprintf(path, sizeof path, "/proc/%d/map_files/%llx-%llx", pid,
                  static_cast<unsigned long long>(mapping.start), static_cast<unsigned long long>(mapping.end));
    return Descriptor(::open(path, O_PATH | O_CLOEXEC));
}

// Without the right to follow the mapping itself, by its name beneath the process's root.
Descriptor findByName(pid_t pid, const Mapping& mapping) {
    const Descriptor root(::open(("/proc/" + std::to_string(pid) + "/root").c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!root) return {};
    open_how how{};
    how.flags = O_PATH | O_CLOEXEC;
    how.resolve = RESOLVE_IN_ROOT | RESOLVE_NO_MAGICLINKS;
    return Descriptor(static_cast<int>(::syscall(SYS_openat2, root.get(), mapping.path.c_str(), &how, sizeof how)));
}

// Without asking the file system again, which might not answer.
bool isRegularFile(int file, std::uint64_t& inode) {
    struct statx status {};
    if (::statx(file, "", AT_EMPTY_PATH | AT_STATX_DONT_SYNC, STATX_TYPE | STATX_INO, &status) != 0) return false;
    inode = status.stx_ino;
    return S_ISREG(status.stx_mode);
}

void open(pid_t pid, ModuleFile& module) {
    std::uint64_t inode = 0;
    Descriptor found = findByMapping(pid, *module.mapping);
    const bool byName = !found;
    if (byName) found = findByName(pid, *module.mapping);
    if (!found) {
        module.problem = "can't be opened";
    } else if (!isRegularFile(found.get(), inode)) {
        module.problem = "is no regular file";
    } else if (byName && inode != module.mapping->inode) {
        module.problem = "is another file by now";
    } else {
        const std::string path = "/proc/self/fd/" + std::to_string(found.get());
        module.file.reset(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
        if (!module.file) module.problem = "can't be opened";
    }
}

}  // namespace

std::vector<ModuleFile> openModuleFiles(pid_t pid, const MemoryMap& map,
                                        std::chrono::steady_clock::time_point deadline) {
    std::vector<ModuleFile> modules;
    const std::set<Device> avoided = devicesThatMayNotAnswer(readProcFile(pid, "mountinfo", kMostMountBytes));
    for (const Mapping& mapping : map.mappings()) {
        if (!mapping.isExecutable || modules.size() == kMostModulesOfAProcess) continue;
        ModuleFile module;
        module.mapping = &mapping;
        if (mapping.path == kVdso) {
            module.image = RemoteMemory(pid).copy(mapping, mapping.start, kMostVdsoBytes).bytes;
        } else if (mapping.inode == 0) {
            continue;  // code made at run time
        } else if (std::chrono::steady_clock::now() >= deadline) {
            module.problem = "no time left to open it";
        } else if (avoided.contains({mapping.deviceMajor, mapping.deviceMinor})) {
            module.problem = "lies on a file system that may not answer";
        } else {
            open(pid, module);
        }
        modules.push_back(std::move(module));
    }
    return modules;
}

}  // namespace quorvix::swivex::stacks
