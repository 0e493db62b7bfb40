#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "platform/linux/HostStatistics.h"
#include "platform/linux/KernelMemoryText.h"
#include "platform/linux/ProcessAssertions.h"
#include "platform/linux/ProcessMemory.h"
#include "platform/linux/ProcessSamples.h"
#include "platform/linux/ProcfsText.h"

namespace quorvix::fuzz {

namespace procfs {

inline void require(bool holds, const char* what) {
    if (holds) return;
    std::fprintf(stderr, "procfs: %s\n", what);
    std::abort();
}

inline bool isPart(std::string_view part, std::string_view text) {
    return part.data() >= text.data() && part.data() + part.size() <= text.data() + text.size();
}

// A number that was read stands in the text with its digits; between them and its sign there may be zeros.
template <class Number>
bool standsIn(std::string_view text, Number number) {
    std::string digits = std::to_string(number);
    if (digits.starts_with('-')) digits.erase(0, 1);
    return text.find(digits) != std::string_view::npos;
}

inline bool stat(std::string_view text) {
    const auto stat = linuxos::parseStat(text);
    if (!stat) return false;
    require(isPart(stat->comm, text), "a name that is not in the text");
    require(standsIn(text, stat->flags) && standsIn(text, stat->startUnits) && standsIn(text, stat->threadCount) &&
                standsIn(text, stat->nice) && standsIn(text, stat->policy),
            "a number of stat that is not in the text");
    // As a record shows it: also where the executable's path completes a name that the kernel cut.
    linuxos::ProcessSample process{};
    setProcessName(process, linuxos::kernelThreadComm(stat->comm));
    require(std::ranges::count(process.name, '\0') > 0, "a name without its end");
    const std::string_view comm = stat->comm.substr(0, linuxos::kCommLength);
    if (linuxos::mayBeCut(comm)) completeProcessName(process, comm, text);
    require(process.name.back() == '\0', "a completed name without its end");
    return true;
}

inline bool counters(std::string_view text) {
    const auto runtime = linuxos::parseSchedstat(text);
    require(!runtime || standsIn(text, *runtime), "a runtime that is not in the text");
    const linuxos::IoText io = linuxos::parseIo(text);
    require(
        (io.readBytes == 0 || standsIn(text, io.readBytes)) && (io.writeBytes == 0 || standsIn(text, io.writeBytes)),
        "a number of io that is not in the text");
    return runtime || io.readBytes != 0 || io.writeBytes != 0;
}

inline bool sizes(std::string_view text) {
    const linuxos::StatusText status = linuxos::parseStatus(text);
    for (const std::uint64_t bytes :
         {status.locked, status.pinned, status.resident, status.anonymous, status.swapped}) {
        require(bytes % 1024 == 0, "a size of status that is no whole kilobyte");
    }
    const linuxos::StatmText statm = linuxos::parseStatm(text);
    require(statm.hasMemory || statm.anonymousPages == 0 || text.starts_with('0') || text.starts_with(' '),
            "pages of a process without memory");
    return status.resident != 0 || statm.hasMemory;
}

inline bool scoreAdjustment(std::string_view text) {
    const auto number = linuxos::parseScoreAdjustment(text);
    require(!number || standsIn(text, *number), "an adjustment that is not in the text");
    return number.has_value();
}

// meminfo and vmstat hold lines of the same kind, so that one text is taken as both, and as mm_stat.
inline bool host(std::string_view text) {
    const linuxos::CompressedMemory zram = linuxos::parseCompressedMemory(text);
    const vm_statistics64 figures = linuxos::vmStatisticsOf(text, text, zram, 4096);
    if (const auto faults = linuxos::numberOfLine(text, "pgfault")) {
        require(figures.faults == *faults && standsIn(text, *faults), "a count of faults that is not in the text");
    }
    require(zram.compressedBytes == 0 || standsIn(text, zram.compressedBytes), "bytes of mm_stat not in the text");
    return figures.free_count != 0 || figures.faults != 0 || zram.originalBytes != 0;
}

inline bool modules(std::string_view text) {
    const auto found = linuxos::parseModules(text);
    for (const linuxos::KernelModule& module : found) {
        require(!module.name.empty() && isPart(module.name, text), "a module that is not in the text");
        require(module.name.find_first_of(" \n") == std::string_view::npos, "a module's name of two words");
    }
    return !found.empty();
}

inline bool assertions(std::string_view text) {
    const auto inhibitor = linuxos::parseInhibitor(text);
    require(!inhibitor || (inhibitor->pid > 0 && inhibitor->mask != 0), "an inhibitor of nobody, or of nothing");
    const auto entry = linuxos::parseRegistryEntry(text);
    if (entry) {
        require(entry->pid > 0, "a registry entry of nobody");
        std::array<char, 64> line{};
        std::snprintf(line.data(), line.size(), "%d %llu 0x%llx\n", entry->pid,
                      static_cast<unsigned long long>(entry->startUnits), static_cast<unsigned long long>(entry->mask));
        const auto again = linuxos::parseRegistryEntry(line.data());
        require(
            again && again->pid == entry->pid && again->startUnits == entry->startUnits && again->mask == entry->mask,
            "a registry entry that reads back as another");
    }
    return inhibitor || entry;
}

}  // namespace procfs

// The daemon's own readers of procfs, sysfs and the folders of assertions. The first byte names the reader, the rest is
// its text; what comes out must stand in the text. True when the reader found something.
inline bool procfsHolds(std::string_view bytes) {
    if (bytes.empty()) return false;
    const std::string_view text = bytes.substr(1);
    switch (bytes.front()) {
        case 's': return procfs::stat(text);
        case 'c': return procfs::counters(text);
        case 'z': return procfs::sizes(text);
        case 'h': return procfs::host(text);
        case 'm': return procfs::modules(text);
        case 'a': return procfs::assertions(text);
        case 'o': return procfs::scoreAdjustment(text);
        default: return false;
    }
}

}  // namespace quorvix::fuzz
