#pragma once

#include <cerrno>
#include <cstddef>
#include <string_view>

namespace quorvix::linuxos {

inline constexpr std::size_t kMaximumFileNameLength = 255;

// Why `name` can't be one file's name inside a directory, as an error number; 0 when it can. Names come from clients
// in part: a slash never leads anywhere, neither out of the directory nor below it. The simulated files use this too.
inline int fileNameError(std::string_view name) {
    if (name.empty() || name.find('/') != std::string_view::npos) return ENOENT;
    if (name.find('\0') != std::string_view::npos) return EINVAL;
    if (name == "." || name == "..") return EISDIR;
    return name.size() > kMaximumFileNameLength ? ENAMETOOLONG : 0;
}

}  // namespace quorvix::linuxos
