#include "ctl/MemoryCommand.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <ostream>
#include <utility>

#include "ctl/MemoryChanges.h"
#include "ctl/MemoryReportFiles.h"
#include "ctl/Printable.h"

namespace quorvix::ctl {

namespace {

using Json = nlohmann::ordered_json;
using Totals = std::map<std::string, MemoryTotals::Total>;
using Change = MemoryChange;

// Strict JSON whatever bytes the names hold.
void print(std::ostream& out, const Json& value) { out << jsonText(value); }

std::string sizeText(std::int64_t bytes) {
    constexpr std::int64_t kKibibyte = 1024;
    return std::to_string(bytes / kKibibyte) + " KiB";
}

void printRow(std::ostream& out, std::string size, const std::string& text) {
    constexpr std::size_t kSizeWidth = 16;
    if (size.size() < kSizeWidth) size.insert(0, kSizeWidth - size.size(), ' ');
    out << size << "  " << text << '\n';
}

Json changesJson(const std::vector<Change>& changes) {
    Json list = Json::array();
    for (const Change& change : changes) {
        list.push_back({{"name", change.name},
                        {"before_bytes", change.before},
                        {"after_bytes", change.after},
                        {"growth_bytes", change.growth()},
                        {"before_count", change.countBefore},
                        {"after_count", change.countAfter}});
    }
    return list;
}

void printChanges(std::ostream& out, std::string_view title, const std::vector<Change>& changes, std::size_t rows) {
    out << title << '\n';
    if (changes.empty()) out << "  no change\n";
    for (std::size_t at = 0; at < std::min(rows, changes.size()); ++at) {
        const Change& change = changes[at];
        std::string text = printable(change.name) + "  (" + sizeText(change.before) + " -> " + sizeText(change.after);
        if (change.countBefore != change.countAfter) {
            text += ", " + std::to_string(change.countBefore) + " -> " + std::to_string(change.countAfter);
        }
        printRow(out, (change.growth() > 0 ? "+" : "") + sizeText(change.growth()), text + ")");
    }
    if (changes.size() > rows) out << "  and " << changes.size() - rows << " more\n";
}

std::vector<std::pair<std::string, MemoryTotals::Total>> greatest(const Totals& totals) {
    std::vector<std::pair<std::string, MemoryTotals::Total>> sorted(totals.begin(), totals.end());
    std::ranges::stable_sort(sorted, std::ranges::greater(), [](const auto& entry) { return entry.second.bytes; });
    return sorted;
}

void printTop(std::ostream& out, std::string_view title, const Totals& totals, std::size_t rows) {
    out << title << '\n';
    const auto sorted = greatest(totals);
    for (std::size_t at = 0; at < std::min(rows, sorted.size()); ++at) {
        const auto& [name, total] = sorted[at];
        printRow(out, sizeText(static_cast<std::int64_t>(total.bytes)),
                 printable(name) + (total.count > 1 ? "  (" + std::to_string(total.count) + ")" : ""));
    }
}

Json topJson(const Totals& totals, std::size_t rows) {
    Json list = Json::array();
    const auto sorted = greatest(totals);
    for (std::size_t at = 0; at < std::min(rows, sorted.size()); ++at) {
        list.push_back(
            {{"name", sorted[at].first}, {"bytes", sorted[at].second.bytes}, {"count", sorted[at].second.count}});
    }
    return list;
}

Json reportJson(const MemoryReport& report) {
    Json counters = Json::object();
    for (const auto& counter : report.counters) counters[counter.name] = counter.value;
    Json processes = Json::array();
    for (const auto& process : report.processes) {
        processes.push_back({{"ProcessName", process.name},
                             {"Priority", process.priority},
                             {"Footprint", process.footprintPages},
                             {"Dirty", process.dirty},
                             {"Assertions", process.assertions}});
    }
    Json zones = Json::array();
    for (const auto& zone : report.zones) zones.push_back({{"Name", zone.name}, {"Pages", zone.value}});
    Json wired = Json::array();
    for (const auto& site : report.wired) wired.push_back({{"Name", site.name}, {"Bytes", site.value}});
    Json json = {{"OSVersion", report.osVersion},
                 {"Model", report.model},
                 {"Timestamp", report.timestamp},
                 {"Counters", counters},
                 {"Processes", processes},
                 {"Zones", zones},
                 {"Wired", wired}};
    if (!report.error.empty()) json["Error"] = report.error;
    return json;
}

}  // namespace

std::optional<std::vector<std::string>> MemoryCommand::reportNames() const {
    auto names = memoryReportNames(services_.reportFolder);
    if (names) return *names;
    services_.error << "quorvixctl: the report folder " << services_.reportFolder
                    << " could not be read: " << names.error().text() << '\n';
    return std::nullopt;
}

std::optional<MemoryReport> MemoryCommand::read(const std::string& file) const {
    const std::string path = file.find('/') != std::string::npos || std::filesystem::exists(file)
                                 ? file
                                 : services_.reportFolder + "/" + file;
    auto report = readMemoryReport(path);
    if (report) return std::move(*report);
    if (report.error().value == EBADMSG) {
        services_.error << "quorvixctl: " << printable(path) << " is no complete memory snapshot report\n";
    } else {
        services_.error << "quorvixctl: " << printable(path) << " could not be read: " << report.error().text() << '\n';
    }
    return std::nullopt;
}

ExitStatus MemoryCommand::list(bool asJson) const {
    const auto names = reportNames();
    if (!names) return ExitStatus::failed;
    if (asJson) {
        print(services_.out, Json(*names));
    } else {
        for (const std::string& name : *names) services_.out << printable(name) << '\n';
    }
    return ExitStatus::done;
}

ExitStatus MemoryCommand::show(const std::string& file, bool asJson) const {
    const auto report = read(file);
    if (!report) return ExitStatus::failed;
    if (asJson) {
        print(services_.out, reportJson(*report));
        return ExitStatus::done;
    }
    services_.out << printable(report->osVersion) << ", " << printable(report->model) << ", "
                  << printable(report->timestamp) << '\n';
    if (!report->error.empty()) services_.out << printable(report->error) << '\n';
    services_.out << "Counters\n";
    for (const auto& counter : report->counters) {
        printRow(services_.out, std::to_string(counter.value), printable(counter.name));
    }
    const MemoryTotals totals = totalsOf(*report);
    services_.out << "Processes (" << report->processes.size() << ")\n";
    for (const auto& process : report->processes) {
        std::string text = printable(process.name) + "  priority " + std::to_string(process.priority);
        if (process.dirty != "-") text += process.dirty == "Y" ? ", dirty" : ", clean";
        for (const std::string& assertion : process.assertions) text += ", " + printable(assertion);
        const auto page = static_cast<std::int64_t>(report->pageBytes());
        printRow(services_.out, sizeText(process.footprintPages * page), text);
    }
    printTop(services_.out, "Zones", totals.zones, totals.zones.size());
    printTop(services_.out, "Wired", totals.wired, totals.wired.size());
    return ExitStatus::done;
}

ExitStatus MemoryCommand::diff(const std::string& before, const std::string& after, std::size_t rows,
                               bool asJson) const {
    const auto first = read(before);
    const auto second = read(after);
    if (!first || !second) return ExitStatus::failed;
    const MemoryTotals from = totalsOf(*first);
    const MemoryTotals to = totalsOf(*second);
    const auto processes = memoryChanges(from.processes, to.processes);
    const auto zones = memoryChanges(from.zones, to.zones);
    const auto wired = memoryChanges(from.wired, to.wired);
    if (asJson) {
        print(services_.out, {{"before", first->timestamp},
                              {"after", second->timestamp},
                              {"processes", changesJson(processes)},
                              {"zones", changesJson(zones)},
                              {"wired", changesJson(wired)}});
        return ExitStatus::done;
    }
    services_.out << printable(first->timestamp) << " -> " << printable(second->timestamp) << '\n';
    printChanges(services_.out, "Processes", processes, rows);
    printChanges(services_.out, "Zones", zones, rows);
    printChanges(services_.out, "Wired", wired, rows);
    return ExitStatus::done;
}

ExitStatus MemoryCommand::top(std::size_t rows, bool asJson) const {
    const auto names = reportNames();
    if (!names) return ExitStatus::failed;
    if (names->empty()) {
        services_.error << "quorvixctl: there is no memory snapshot yet in " << services_.reportFolder
                        << "; \"quorvixctl memory snapshot\" takes one\n";
        return ExitStatus::failed;
    }
    const auto report = read(services_.reportFolder + "/" + names->back());
    if (!report) return ExitStatus::failed;
    const MemoryTotals totals = totalsOf(*report);
    if (asJson) {
        print(services_.out, {{"report", names->back()},
                              {"processes", topJson(totals.processes, rows)},
                              {"zones", topJson(totals.zones, rows)},
                              {"wired", topJson(totals.wired, rows)}});
        return ExitStatus::done;
    }
    services_.out << printable(names->back()) << '\n';
    printTop(services_.out, "Processes", totals.processes, rows);
    printTop(services_.out, "Zones", totals.zones, rows);
    printTop(services_.out, "Wired", totals.wired, rows);
    return ExitStatus::done;
}

ExitStatus MemoryCommand::snapshot(bool asJson) const {
    // What goes wrong is told by the snapshot itself.
    const std::optional<std::string> path = services_.takeSnapshot();
    if (!path) return ExitStatus::failed;
    services_.out << (asJson ? jsonText({{"path", *path}}) : *path + '\n');
    return ExitStatus::done;
}

}  // namespace quorvix::ctl
