#include "ctl/PageData.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <utility>
#include <vector>

#include "ctl/MemoryChanges.h"
#include "ctl/MemoryReportFiles.h"
#include "ctl/PowerLogQuery.h"
#include "report/PlainText.h"

namespace quorvix::ctl {

namespace {

using Json = nlohmann::ordered_json;
using report::escaped;
using Totals = std::map<std::string, MemoryTotals::Total>;

std::uint64_t bytesOf(const Totals& totals) {
    std::uint64_t sum = 0;
    for (const auto& [name, total] : totals) sum += total.bytes;
    return sum;
}

std::uint64_t bytesOf(const Totals& totals, const std::string& name) {
    const auto found = totals.find(name);
    return found == totals.end() ? 0 : found->second.bytes;
}

struct Snapshot {
    std::string timestamp;
    MemoryTotals totals;
    Json free;  // bytes; null where the report has no figure
};

Json freeBytes(const MemoryReport& report) {
    const auto counter = std::ranges::find(report.counters, "free_count", &MemoryReport::Amount::name);
    if (counter == report.counters.end()) return nullptr;
    return counter->value * report.pageBytes();
}

// What grew, each with its size in every snapshot.
Json grown(const std::vector<Snapshot>& snapshots, Totals MemoryTotals::*kind) {
    Json list = Json::array();
    for (const MemoryChange& change : memoryChanges(snapshots.front().totals.*kind, snapshots.back().totals.*kind)) {
        if (change.growth() <= 0 || list.size() >= kMostGrown) break;
        Json series = Json::array();
        for (const Snapshot& snapshot : snapshots) series.push_back(bytesOf(snapshot.totals.*kind, change.name));
        list.push_back({{"name", escaped(change.name)},
                        {"before", change.before},
                        {"after", change.after},
                        {"count_before", change.countBefore},
                        {"count_after", change.countAfter},
                        {"series", std::move(series)}});
    }
    return list;
}

}  // namespace

Json launchData(const std::string& powerLogPath) {
    try {
        PowerLogQuery query(powerLogPath);
        const QueryResult rows = query.run("SELECT * FROM Durations ORDER BY BundleID, Type");
        Json list = Json::array();
        for (std::size_t row = 0; row < rows.rows.size(); ++row) {
            list.push_back({{"app", escaped(rows.text(row, "BundleID"))},
                            {"type", escaped(rows.text(row, "Type"))},
                            {"count", rows.integer(row, "Count")},
                            {"min_ms", rows.integer(row, "Min_ms")},
                            {"p50_ms", rows.integer(row, "P50_ms")},
                            {"p90_ms", rows.integer(row, "P90_ms")},
                            {"p99_ms", rows.integer(row, "P99_ms")},
                            {"max_ms", rows.integer(row, "Max_ms")}});
        }
        if (list.empty()) return {{"problem", "no launch or resume is stored that has ended"}};
        return {{"rows", std::move(list)}};
    } catch (const std::runtime_error& error) {
        return {{"problem", escaped(error.what())}};
    }
}

Json memoryData(const std::string& folder) {
    const auto names = memoryReportNames(folder);
    if (!names) return {{"problem", "the folder " + escaped(folder) + " could not be read: " + names.error().text()}};
    if (names->empty()) return {{"problem", "there is no memory snapshot in " + escaped(folder)}};
    std::vector<Snapshot> snapshots;
    Json unread = Json::array();
    const std::size_t leftOut = names->size() - std::min(names->size(), kMostSnapshots);
    for (std::size_t at = leftOut; at < names->size(); ++at) {
        const auto read = readMemoryReport(folder + "/" + (*names)[at]);
        if (read) {
            snapshots.push_back({.timestamp = read->timestamp, .totals = totalsOf(*read), .free = freeBytes(*read)});
        } else {
            unread.push_back(escaped((*names)[at]));
        }
    }
    if (snapshots.empty()) return {{"problem", "no memory snapshot in " + escaped(folder) + " could be read"}};
    Json json = {{"left_out", leftOut}, {"unread", unread}};
    for (const Snapshot& snapshot : snapshots) {
        json["times"].push_back(escaped(snapshot.timestamp));
        json["processes"].push_back(bytesOf(snapshot.totals.processes));
        json["zones"].push_back(bytesOf(snapshot.totals.zones));
        json["free"].push_back(snapshot.free);
        json["wired"].push_back(bytesOf(snapshot.totals.wired));
    }
    json["grown"] = {{"processes", grown(snapshots, &MemoryTotals::processes)},
                     {"zones", grown(snapshots, &MemoryTotals::zones)},
                     {"wired", grown(snapshots, &MemoryTotals::wired)}};
    return json;
}

}  // namespace quorvix::ctl
