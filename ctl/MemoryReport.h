#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quorvix::ctl {

// A memory snapshot report as it was read. Names are bytes as they stand in the report.
struct MemoryReport {
    struct Process {
        std::string name;
        std::int64_t priority = 0;
        std::int64_t footprintPages = 0;
        std::string dirty;
        std::vector<std::string> assertions;
    };
    struct Amount {
        std::string name;
        std::uint64_t value = 0;
    };

    std::string osVersion;
    std::string model;
    std::string timestamp;
    std::string error;  // in place of the counters
    std::vector<Amount> counters;
    std::vector<Process> processes;
    std::vector<Amount> zones;  // pages
    std::vector<Amount> wired;  // bytes

    std::uint64_t pageBytes() const;
};

// Reads a report. Names stand in it as they are, quotes and line feeds included, so that it is read by the texts around
// each name and not as JSON; where a name holds such a text itself, the first place behind which a whole record stands
// counts. Nothing: the text is no complete report.
std::optional<MemoryReport> parseMemoryReport(std::string_view text);

// What is of the same name, summed up: a process name's footprint in bytes and how many processes, a zone's bytes, a
// site's bytes.
struct MemoryTotals {
    struct Total {
        std::uint64_t bytes = 0;
        std::uint64_t count = 0;
    };
    std::map<std::string, Total> processes;
    std::map<std::string, Total> zones;
    std::map<std::string, Total> wired;
};
MemoryTotals totalsOf(const MemoryReport& report);

}  // namespace quorvix::ctl
