#pragma once

#include <string>
#include <utility>
#include <vector>

#include "memsnapshot/MemoryReportText.h"
#include "memsnapshot/MemorySnapshot.h"
#include "tests/support/DaemonWorld.h"

namespace quorvix::test {

inline constexpr std::string_view kCache = "/var/root/Library/Caches/quorvixd";
inline constexpr std::string_view kFaultbox = "/Library/Logs/Faultbox";

// The simulated device with the daemon up and nothing but memory snapshots on; both folders of the report are there.
class MemoryWorld : public DaemonWorld {
protected:
    MemoryWorld() {
        device.files.addDirectory(kFaultbox);
        device.preferences.change("QuorvixEnableMemoryLogging", true, kDaemonDomain);
        start();
        device.log.clear();
        device.json.faults = {};
    }

    std::string report() { return memoryReportText("2026-01-15-120000"); }
    // What stands between two texts of the report, both left out.
    std::string section(std::string_view begin, std::string_view end) {
        const std::string text = report();
        const std::size_t from = text.find(begin);
        if (from == std::string::npos) return "no \"" + std::string(begin) + "\" in: " + text;
        const std::size_t to = text.find(end, from + begin.size());
        if (to == std::string::npos) return "no end in: " + text;
        return text.substr(from + begin.size(), to - from - begin.size());
    }
    std::string counters() { return section("\n}\n{\n", ",\n\"Processes\""); }
    std::string processes() { return section("\"Processes\" :\n[\n", "],\n\"Zones\""); }
    std::string zones() { return section("\"Zones\" :\n[\n", "],\n\"Wired\""); }
    std::string wired() { return section("\"Wired\" :\n[\n", "]\n}\n"); }

    std::string recordOf(sim::SimProcessMemory::Process process) {
        device.processMemory.processes = {std::move(process)};
        return processes();
    }
    std::string recordWithAssertions(std::uint64_t mask) {
        return recordOf({.pid = 7, .path = "/bin/a", .footprintBytes = 0, .assertions = mask});
    }
    std::string nameOfPath(std::optional<std::string> path) {
        const std::string record = recordOf({.pid = 7, .path = std::move(path)});
        constexpr std::string_view kBegin = "{\"ProcessName\":\"";
        const std::size_t end = record.find("\", \"Priority\"");
        return record.substr(kBegin.size(), end - kBegin.size());
    }
    std::string nameOfSite(WiredSite::Kind kind, std::uint64_t number) {
        device.kernelMemory.memory.sites = {{kind, number, 1}};
        const std::string record = wired();
        return record.substr(3, record.rfind("\" : 1 }") - 3);
    }
};

}  // namespace quorvix::test
