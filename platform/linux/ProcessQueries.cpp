#include "platform/linux/ProcessQueries.h"

#include <limits.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "platform/linux/ProcfsSource.h"
#include "platform/linux/ProcfsText.h"
#include "platform/linux/TaskIteratorSource.h"

namespace quorvix::linuxos {

namespace {

LinuxProcessQueries::Sources procfsOnly(const std::string& root) {
    LinuxProcessQueries::Sources sources;
    sources.push_back(std::make_unique<ProcfsSource>(root));
    return sources;
}

LinuxProcessQueries::Sources bestFirst() {
    LinuxProcessQueries::Sources sources;
    sources.push_back(std::make_unique<TaskIteratorSource>());
    sources.push_back(std::make_unique<ProcfsSource>());
    return sources;
}

}  // namespace

LinuxProcessQueries::LinuxProcessQueries(std::string procRoot)
    : LinuxProcessQueries(procfsOnly(procRoot), nullptr, procRoot) {}

LinuxProcessQueries::LinuxProcessQueries(Sources sources, SystemLog* log, std::string procRoot)
    : procRoot_(std::move(procRoot)), table_(std::move(sources), log) {}

LinuxProcessQueries::LinuxProcessQueries(SystemLog& log) : LinuxProcessQueries(bestFirst(), &log) {}

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

std::int32_t LinuxProcessQueries::listAllPids(std::int32_t* pids, std::int32_t bufferBytes) {
    if (!pids && table_.freeze() != 0) return -1;
    const auto processes = table_.processes();
    const std::size_t needed = processes.size() * sizeof(std::int32_t);
    if (!pids) return static_cast<std::int32_t>(needed);
    if (bufferBytes < 0) return -1;
    const std::size_t slots = static_cast<std::size_t>(bufferBytes) / sizeof(std::int32_t);
    const std::size_t count = std::min(slots, processes.size());
    for (std::size_t i = 0; i < count; ++i) pids[i] = processes[i].pid;
    std::fill(pids + count, pids + slots, 0);
    return static_cast<std::int32_t>(count * sizeof(std::int32_t));
}

Result<void> LinuxProcessQueries::resourceUsage(std::int32_t pid, ResourceUsage& usage) {
    const std::ptrdiff_t place = table_.find(pid);
    if (place < 0) return ErrorCode{ESRCH};
    usage = table_.usage(static_cast<std::size_t>(place));
    return {};
}

Result<std::size_t> LinuxProcessQueries::processName(std::int32_t pid, std::span<char> buffer) {
    const std::ptrdiff_t place = table_.find(pid);
    // A process can name itself nothing at all, which no name can stand for.
    if (place < 0 || table_.processes()[static_cast<std::size_t>(place)].name[0] == '\0') return ErrorCode{ESRCH};
    if (buffer.empty()) return ErrorCode{ENOBUFS};
    const auto& name = table_.processes()[static_cast<std::size_t>(place)].name;
    const std::size_t length = std::min(std::strlen(name.data()), buffer.size() - 1);
    std::copy_n(name.begin(), length, buffer.begin());
    buffer[length] = '\0';
    return length;
}

}  // namespace quorvix::linuxos
