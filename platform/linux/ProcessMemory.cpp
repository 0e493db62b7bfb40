#include "platform/linux/ProcessMemory.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>

#include "platform/linux/ProcfsText.h"

namespace quorvix::linuxos {

namespace {

std::uint64_t pageBytes() {
    static const auto bytes = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
    return bytes;
}

bool hasEnded(std::string_view stat) {
    const std::size_t name = stat.rfind(')');
    if (name == std::string_view::npos || name + 2 >= stat.size()) return true;
    const char state = stat[name + 2];
    return state == 'Z' || state == 'X' || state == 'x';
}

}  // namespace

StatmText parseStatm(std::string_view text) {
    std::uint64_t values[3]{};  // size, resident, of that shared with files
    const char* next = text.data();
    const char* const end = next + text.size();
    for (std::uint64_t& value : values) {
        while (next != end && *next == ' ') ++next;
        const auto [after, error] = std::from_chars(next, end, value);
        if (error != std::errc()) return {};
        next = after;
    }
    return {.anonymousPages = values[1] > values[2] ? values[1] - values[2] : 0, .hasMemory = values[0] != 0};
}

std::optional<std::int32_t> parseScoreAdjustment(std::string_view text) {
    std::int32_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() ? std::optional(number) : std::nullopt;
}

int LinuxProcessMemory::openDirectory() {
    if (!directory_) directory_.reset(::open(places_.proc.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return directory_ ? 0 : errno;
}

Result<std::vector<MemoryPriority>> LinuxProcessMemory::priorityList() {
    ++lists_;
    footprints_.clear();
    if (const int error = openDirectory()) return ErrorCode{error};
    if (lseek(directory_.get(), 0, SEEK_SET) < 0) return ErrorCode{errno};
    if (const int error = listIds(directory_.get(), pids_)) return ErrorCode{error};
    std::ranges::sort(pids_);
    swapIsUsed_ = swapIsUsed();

    std::vector<MemoryPriority> list;
    list.reserve(pids_.size());
    for (const std::int32_t pid : pids_) {
        const auto entry = entryOf(pid);
        if (!entry) continue;
        footprints_.push_back({pid, entry->footprint});
        list.push_back({.pid = pid, .priority = entry->priority, .state = 0});
    }
    assertions_.read(pids_, [this](std::int32_t pid) { return startOf(pid); });
    return list;
}

std::optional<LinuxProcessMemory::Entry> LinuxProcessMemory::entryOf(std::int32_t pid) {
    const std::string prefix = std::to_string(pid);
    Entry entry;
    if (const auto footprint = footprintOf(prefix)) {
        entry.footprint = *footprint;
    } else if (couldNotBeRead()) {
        // It keeps its record, as long as it is no kernel thread.
        ++unreadable_;
        if (!hasExecutable(pid)) return std::nullopt;
    } else {
        // A kernel thread, a process that has ended, or one whose first thread has.
        const auto stat = parseStat(readFile(prefix + "/stat"));
        if (!stat || stat->flags & kKernelThreadFlag || stat->threadCount < 2) return std::nullopt;
        const auto ofThreads = footprintOfThreads(pid);
        if (!ofThreads) return std::nullopt;
        entry.footprint = *ofThreads;
    }
    if (const auto adjustment = parseScoreAdjustment(readFile(prefix + "/oom_score_adj"))) {
        entry.priority = *adjustment;
        return entry;
    }
    if (!couldNotBeRead()) return std::nullopt;  // gone since
    ++unreadable_;
    return entry;
}

bool LinuxProcessMemory::hasExecutable(std::int32_t pid) {
    // Needs no descriptor, so that it works where there are none left.
    return !readLink(std::to_string(pid) + "/exe").empty() || couldNotBeRead();
}

int LinuxProcessMemory::listIds(int directory, std::vector<std::int32_t>& ids) {
    ids.clear();
    return reader_.eachId(directory, [&ids](std::int32_t id, std::uint64_t) { ids.push_back(id); });
}

// Where nothing is swapped out, the shortest of the files tells all of the footprint.
bool LinuxProcessMemory::swapIsUsed() {
    const std::string_view meminfo = readFile("meminfo");
    const auto total = numberOfLine(meminfo, "SwapTotal");
    const auto free = numberOfLine(meminfo, "SwapFree");
    return !total || !free || *total != *free;
}

std::optional<std::uint64_t> LinuxProcessMemory::footprintOf(const std::string& prefix) {
    if (!swapIsUsed_) {
        const StatmText statm = parseStatm(readFile(prefix + "/statm"));
        if (!statm.hasMemory) return std::nullopt;
        return statm.anonymousPages * pageBytes();
    }
    const std::string_view status = readFile(prefix + "/status");
    if (!numberOfLine(status, "VmSize")) return std::nullopt;
    const StatusText sizes = parseStatus(status);
    return sizes.anonymous + sizes.swapped;
}

std::optional<std::uint64_t> LinuxProcessMemory::footprintOfThreads(std::int32_t pid) {
    const std::string tasks = std::to_string(pid) + "/task";
    {
        const Descriptor directory(openat(directory_.get(), tasks.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (!directory || listIds(directory.get(), threads_) != 0) return std::nullopt;
    }
    for (const std::int32_t thread : threads_) {
        if (const auto footprint = footprintOf(tasks + "/" + std::to_string(thread))) return footprint;
    }
    return std::nullopt;
}

std::optional<std::uint64_t> LinuxProcessMemory::startOf(std::int32_t pid) {
    const auto stat = parseStat(readFile(std::to_string(pid) + "/stat"));
    return stat ? std::optional(stat->startUnits) : std::nullopt;
}

Result<std::string> LinuxProcessMemory::executablePath(std::int32_t pid) {
    if (pid <= 0) return ErrorCode{ESRCH};
    if (const int error = openDirectory()) return ErrorCode{error};
    const std::string prefix = std::to_string(pid);
    std::string_view path = readLink(prefix + "/exe");
    if (reader_.error() == 0) {
        if (path.ends_with(kDeletedMark)) path.remove_suffix(kDeletedMark.size());
        return std::string(path);
    }
    if (reader_.error() != ENOENT) return ErrorCode{reader_.error()};
    // Either there is no process, or it is there and has no executable.
    if (hasEnded(readFile(prefix + "/stat"))) return ErrorCode{ESRCH};
    return std::string();
}

Result<std::uint64_t> LinuxProcessMemory::physicalFootprint(std::int32_t pid) {
    const auto found = std::ranges::lower_bound(footprints_, pid, {}, &Footprint::pid);
    if (found == footprints_.end() || found->pid != pid) return ErrorCode{ESRCH};
    return found->bytes;
}

JsonObject LinuxProcessMemory::selfCounters() const {
    return {{"lists", lists_},
            {"unreadableProcesses", unreadable_},
            {"staleAssertions", assertions_.staleEntries()},
            {"refusedAssertionFiles", assertions_.refusedFiles()}};
}

}  // namespace quorvix::linuxos
