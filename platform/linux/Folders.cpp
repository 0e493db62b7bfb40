#include "platform/linux/Folders.h"

#include <sys/stat.h>

#include <cerrno>

namespace quorvix::linuxos {

Result<void> makeFolders(const std::string& path, mode_t mode) {
    struct stat status {};
    if (::stat(path.c_str(), &status) == 0) {
        if (!S_ISDIR(status.st_mode)) return ErrorCode{ENOTDIR};
        return {};
    }
    if (errno != ENOENT) return ErrorCode{errno};
    const std::size_t end = path.find_last_not_of('/');
    const std::size_t slash = path.find_last_of('/', end);
    if (end != std::string::npos && slash != std::string::npos && slash > 0) {
        if (Result<void> parent = makeFolders(path.substr(0, slash), mode); !parent) return parent;
    }
    if (::mkdir(path.c_str(), mode) != 0) {
        // Another program may have made it meanwhile.
        if (errno == EEXIST) return {};
        return ErrorCode{errno};
    }
    // The mode without the process's mask.
    if (::chmod(path.c_str(), mode) != 0) return ErrorCode{errno};
    return {};
}

}  // namespace quorvix::linuxos
