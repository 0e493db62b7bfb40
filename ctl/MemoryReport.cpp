#include "ctl/MemoryReport.h"

#include <charconv>

namespace quorvix::ctl {

namespace {

bool take(std::string_view& text, std::string_view what) {
    if (!text.starts_with(what)) return false;
    text.remove_prefix(what.size());
    return true;
}

// Up to this text, which is taken too.
bool takeUpTo(std::string_view& text, std::string_view end, std::string& value) {
    const std::size_t at = text.find(end);
    if (at == std::string_view::npos) return false;
    value = text.substr(0, at);
    text.remove_prefix(at + end.size());
    return true;
}

template <class Number>
bool takeNumber(std::string_view& text, Number& value) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc()) return false;
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    return true;
}

// Reads behind a name: true when a whole record stands there.
template <class Record>
using ReadRest = bool (*)(std::string_view& text, Record& record);

bool readProcessRest(std::string_view& text, MemoryReport::Process& process) {
    if (!takeNumber(text, process.priority) || !take(text, ", \"Footprint\":") ||
        !takeNumber(text, process.footprintPages) || !take(text, ", \"Dirty\":\"") || text.empty()) {
        return false;
    }
    process.dirty = text.substr(0, 1);
    text.remove_prefix(1);
    if (!take(text, "\"")) return false;
    process.assertions.clear();
    if (take(text, ", \"Assertions\":[")) {
        do {
            std::string name;
            if (!take(text, "\"") || !takeUpTo(text, "\"", name)) return false;
            process.assertions.push_back(std::move(name));
        } while (take(text, ","));
        if (!take(text, "]")) return false;
    }
    return take(text, "}");
}

bool readZoneRest(std::string_view& text, MemoryReport::Amount& zone) {
    return takeNumber(text, zone.value) && take(text, " }");
}

// One record: its beginning, a name that may hold anything, what ends the name, and the rest, behind which another
// record or the section's end stands.
template <class Record>
bool takeRecord(std::string_view& text, std::string_view begin, std::string_view nameEnd, ReadRest<Record> readRest,
                std::string_view sectionEnd, Record& record) {
    if (!take(text, begin)) return false;
    for (std::size_t at = text.find(nameEnd); at != std::string_view::npos; at = text.find(nameEnd, at + 1)) {
        std::string_view rest = text.substr(at + nameEnd.size());
        if (!readRest(rest, record)) continue;
        const std::string following = ",\n" + std::string(begin);
        if (!rest.starts_with(following) && !rest.starts_with(sectionEnd)) continue;
        record.name = text.substr(0, at);
        text = rest;
        return true;
    }
    return false;
}

template <class Record>
bool takeSection(std::string_view& text, std::string_view title, std::string_view begin, std::string_view nameEnd,
                 ReadRest<Record> readRest, std::string_view sectionEnd, std::vector<Record>& records) {
    if (!take(text, title)) return false;
    if (take(text, sectionEnd)) return true;
    do {
        Record record;
        if (!takeRecord(text, begin, nameEnd, readRest, sectionEnd, record)) return false;
        records.push_back(std::move(record));
    } while (take(text, ",\n"));
    return take(text, sectionEnd);
}

bool takeCounters(std::string_view& text, MemoryReport& report) {
    if (take(text, "\"error\" : \"")) return takeUpTo(text, "\",\n", report.error);
    while (!text.starts_with("\"Processes\" :")) {
        MemoryReport::Amount counter;
        if (!take(text, "\"") || !takeUpTo(text, "\" : ", counter.name) || !takeNumber(text, counter.value) ||
            !take(text, ",\n")) {
            return false;
        }
        report.counters.push_back(std::move(counter));
    }
    return true;
}

}  // namespace

std::uint64_t MemoryReport::pageBytes() const {
    for (const Amount& counter : counters) {
        if (counter.name == "page_size") return counter.value;
    }
    return 4096;  // a report without counters does not tell
}

std::optional<MemoryReport> parseMemoryReport(std::string_view text) {
    MemoryReport report;
    std::string again;
    const bool head = take(text, "{\"bug_type\":\"152\",\"os_version\":\"") &&
                      takeUpTo(text, "\"}\n{\n\"Model\" : \"", report.osVersion) &&
                      takeUpTo(text, "\",\n\"Timestamp\" : \"", report.model) &&
                      takeUpTo(text, "\",\n\"OSVersion\" : \"", report.timestamp) &&
                      takeUpTo(text, "\"\n}\n{\n", again);
    const bool body =
        head && takeCounters(text, report) &&
        takeSection<MemoryReport::Process>(text, "\"Processes\" :\n[\n", "{\"ProcessName\":\"",
                                           "\", \"Priority\":", readProcessRest, "],\n\"Zones\" :\n",
                                           report.processes) &&
        takeSection<MemoryReport::Amount>(text, "[\n", "{ \"Name\" : \"", "\", \"Pages\" : ", readZoneRest,
                                          "],\n\"Wired\" :\n", report.zones) &&
        takeSection<MemoryReport::Amount>(text, "[\n", "{ \"", "\" : ", readZoneRest, "]\n}\n", report.wired);
    if (!body || !text.empty()) return std::nullopt;
    return report;
}

MemoryTotals totalsOf(const MemoryReport& report) {
    MemoryTotals totals;
    const std::uint64_t page = report.pageBytes();
    const auto add = [](MemoryTotals::Total& total, std::uint64_t bytes) {
        total.bytes += bytes;
        ++total.count;
    };
    for (const auto& process : report.processes) {
        // A footprint that does not fit its field reads negative; it counts for nothing rather than for everything.
        const auto pages = static_cast<std::uint64_t>(process.footprintPages < 0 ? 0 : process.footprintPages);
        add(totals.processes[process.name], pages * page);
    }
    for (const auto& zone : report.zones) add(totals.zones[zone.name], zone.value * page);
    for (const auto& site : report.wired) add(totals.wired[site.name], site.value);
    return totals;
}

}  // namespace quorvix::ctl
