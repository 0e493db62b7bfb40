#include "platform/linux/ProcessQueries.h"

#include <limits.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <string_view>

namespace quorvix::linuxos {

namespace {

constexpr std::string_view kDeletedMark = " (deleted)";

}  // namespace

std::size_t LinuxProcessQueries::executablePath(std::int32_t pid, std::span<char> buffer) {
    if (pid <= 0) return 0;
    const std::string link = procRoot_ + "/" + std::to_string(pid) + "/exe";
    // Read whole before it is cut, so that the mark is seen at its end.
    std::array<char, PATH_MAX + kDeletedMark.size()> bytes;
    const ssize_t read = readlink(link.c_str(), bytes.data(), bytes.size());
    if (read <= 0) return 0;
    std::string_view path(bytes.data(), static_cast<std::size_t>(read));
    if (path.ends_with(kDeletedMark)) path.remove_suffix(kDeletedMark.size());
    const std::size_t length = std::min(path.size(), buffer.size());
    std::copy_n(path.begin(), length, buffer.begin());
    if (length < buffer.size()) buffer[length] = '\0';
    return length;
}

}  // namespace quorvix::linuxos
