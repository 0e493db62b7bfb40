#pragma once

#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

#include "ctl/MemoryReport.h"

// The report as the daemon would have written it: names as they are. Of the version that it repeats, the reader keeps
// the first.
inline std::string memoryReportOf(const quorvix::ctl::MemoryReport& report) {
    std::string text = "{\"bug_type\":\"152\",\"os_version\":\"" + report.osVersion + "\"}\n{\n\"Model\" : \"" +
                       report.model + "\",\n\"Timestamp\" : \"" + report.timestamp +
                       "\",\n\"OSVersion\" : \"\"\n}\n{\n";
    if (!report.error.empty()) text += "\"error\" : \"" + report.error + "\",\n";
    for (const auto& counter : report.counters) {
        text += "\"" + counter.name + "\" : " + std::to_string(counter.value) + ",\n";
    }
    std::string behind;
    const auto separate = [&] {
        text += behind;
        behind = ",\n";
    };
    text += "\"Processes\" :\n[\n";
    for (const auto& process : report.processes) {
        separate();
        text += "{\"ProcessName\":\"" + process.name + "\", \"Priority\":" + std::to_string(process.priority) +
                ", \"Footprint\":" + std::to_string(process.footprintPages) + ", \"Dirty\":\"" + process.dirty + "\"";
        for (std::size_t at = 0; at < process.assertions.size(); ++at) {
            text += (at == 0 ? ", \"Assertions\":[\"" : ",\"") + process.assertions[at] + "\"";
        }
        text += process.assertions.empty() ? "}" : "]}";
    }
    const auto amounts = [&](std::string_view title, std::string_view name, const char* between, const auto& list) {
        behind.clear();
        text += title;
        for (const auto& amount : list) {
            separate();
            text.append(name).append(amount.name).append(between).append(std::to_string(amount.value)).append(" }");
        }
    };
    amounts("],\n\"Zones\" :\n[\n", "{ \"Name\" : \"", "\", \"Pages\" : ", report.zones);
    amounts("],\n\"Wired\" :\n[\n", "{ \"", "\" : ", report.wired);
    return text + "]\n}\n";
}

// What must hold for any bytes taken as a memory report: what was read can be written, and that is read as the same.
// True when it was a report.
inline bool memoryReportHolds(std::string_view bytes) {
    using namespace quorvix::ctl;
    const std::optional<MemoryReport> report = parseMemoryReport(bytes);
    if (!report) return false;
    const std::string text = memoryReportOf(*report);
    const std::optional<MemoryReport> again = parseMemoryReport(text);
    const MemoryTotals totals = totalsOf(*report);
    std::uint64_t processes = 0;
    for (const auto& [name, total] : totals.processes) processes += total.count;
    if (!again || memoryReportOf(*again) != text || processes != report->processes.size()) {
        std::fprintf(stderr, "memory report: reads back as another\n");
        std::abort();
    }
    return true;
}
