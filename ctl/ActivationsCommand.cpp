#include "ctl/ActivationsCommand.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <ostream>
#include <stdexcept>

#include "ctl/PowerLogQuery.h"
#include "ctl/Printable.h"
#include "ctl/TextTable.h"
#include "perfstats/ConsoleRendering.h"
#include "perfstats/VMColumns.h"

namespace quorvix::ctl {

namespace {

constexpr const char* kRecord =
    "SELECT v.ID, v.StartedUTC, a.BundleID, v.Type, a.ActivationDuration_ms, a.ActivationResult,"
    " printf('0x%llx', a.ActivationFlags) AS ActivationFlags, printf('%llu', a.UniqueID) AS UniqueID,"
    " a.UniqueID & 0xffffffff AS Pid, a.SystemUptime, a.Timestamp, a.Activation"
    " FROM ActivationData a JOIN Activations v USING (Activation)"
    " WHERE a.ActivationID = ?1 ORDER BY a.Activation DESC";
// The heaviest first, as it was sent; the processes folded together come last.
constexpr const char* kProcesses =
    "SELECT c.UniqueID & 0xffffffff AS Pid, v.ProcessName, v.TotalCPU_ms, v.QOSDisabled_ms, v.QOSUserInteractive_ms,"
    " v.QOSUserInitiated_ms, v.QOSDefault_ms, v.QOSUtility_ms, v.QOSMaintenance_ms, v.QOSBackground_ms, v.IOReads_kb,"
    " v.IOWrites_kb, v.PageIns, v.State, c.ProcessLifecycleState AS Lifecycle, c.EntryKey"
    " FROM CPUByActivation v JOIN CPUStatistics c USING (Activation, EntryKey)"
    " WHERE v.Activation = ?1 ORDER BY c.EntryKey < 0, c.EntryKey";
constexpr const char* kMemory = "SELECT * FROM MemoryStatistics WHERE Activation = ?1 ORDER BY EntryKey";

// Unsigned in 32 bits in the store; the pseudo-process has -1.
std::int32_t pidOf(const QueryResult& rows, std::size_t row) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(rows.integer(row, "Pid")));
}

// Hidden columns serve the console's layout only.
QueryResult without(const QueryResult& from, std::initializer_list<std::string_view> hidden) {
    QueryResult result;
    result.rows.resize(from.rows.size());
    for (std::size_t column = 0; column < from.columns.size(); ++column) {
        if (std::ranges::find(hidden, from.columns[column]) != hidden.end()) continue;
        result.columns.push_back(from.columns[column]);
        for (std::size_t row = 0; row < from.rows.size(); ++row) {
            result.rows[row].push_back(from.rows[row][column]);
        }
    }
    return result;
}

QueryResult readableProcesses(const QueryResult& processes) {
    QueryResult result = without(processes, {"Lifecycle", "EntryKey"});
    for (std::size_t row = 0; row < result.rows.size(); ++row) {
        result.rows[row][0] = std::int64_t{pidOf(processes, row)};
    }
    return result;
}

vm_statistics64 statisticsOf(const QueryResult& memory, std::size_t row) {
    const auto wide = [&](std::string_view column) { return static_cast<std::uint64_t>(memory.integer(row, column)); };
    const auto narrow = [&](std::string_view column) { return static_cast<std::uint32_t>(wide(column)); };
    vm_statistics64 s{};
    s.speculative_count = narrow("SpeculativeQueue");
    // Stored without the speculative pages.
    s.free_count = narrow("FreeQueue") + s.speculative_count;
    s.active_count = narrow("ActiveQueue");
    s.inactive_count = narrow("InactiveQueue");
    s.throttled_count = narrow("ThrottledQueue");
    s.wire_count = narrow("WiredQueue");
    s.purgeable_count = narrow("PurgeableQueue");
    s.external_page_count = narrow("FileBackedQueue");
    s.internal_page_count = narrow("AnonymousQueue");
    s.compressor_page_count = narrow("CompressorSize");
    s.faults = wide("Faults");
    s.cow_faults = wide("CopyOnWriteFault");
    s.zero_fill_count = wide("ZeroFill");
    s.reactivations = wide("Reactivated");
    s.purges = wide("Purged");
    s.total_uncompressed_pages_in_compressor = wide("TotalCompressed");
    s.decompressions = wide("Decompressions");
    s.compressions = wide("Compressions");
    s.pageins = wide("PageIns");
    s.pageouts = wide("PageOuts");
    s.swapins = wide("SwapIns");
    s.swapouts = wide("SwapOuts");
    return s;
}

std::string consoleText(const QueryResult& processes, const QueryResult& memory) {
    std::string out;
    if (!processes.rows.empty()) {
        out += "Found " + std::to_string(processes.rows.size()) + " processes\n" + consoleTableHeader();
    }
    for (std::size_t row = 0; row < processes.rows.size(); ++row) {
        const auto figure = [&](std::string_view column) {
            return static_cast<unsigned long long>(processes.integer(row, column));
        };
        const TaskColumns columns{.totalMs = figure("TotalCPU_ms"),
                                  .noQosMs = figure("QOSDisabled_ms"),
                                  .userInteractiveMs = figure("QOSUserInteractive_ms"),
                                  .userInitiatedMs = figure("QOSUserInitiated_ms"),
                                  .defaultMs = figure("QOSDefault_ms"),
                                  .utilityMs = figure("QOSUtility_ms"),
                                  .maintenanceMs = figure("QOSMaintenance_ms"),
                                  .backgroundMs = figure("QOSBackground_ms"),
                                  // Stored in whole kilobytes.
                                  .bytesRead = figure("IOReads_kb") << 10,
                                  .bytesWritten = figure("IOWrites_kb") << 10,
                                  .pageIns = figure("PageIns")};
        out += consoleTableLine(pidOf(processes, row), processes.text(row, "ProcessName").c_str(), columns,
                                static_cast<std::uint8_t>(processes.integer(row, "Lifecycle")));
    }
    if (memory.rows.size() != 2) return out;
    const vm_statistics64 start = statisticsOf(memory, 0);
    const vm_statistics64 end = statisticsOf(memory, 1);
    out += "\nStart VM Statistics (pages)\n" + vmStatisticsBlock(start);
    out += "\nEnd VM Statistics (pages)\n" + vmStatisticsBlock(end);
    return out + "\nDelta VM Statistics (pages)\n" + vmStatisticsBlock(vmStatisticsDelta(start, end));
}

constexpr std::array<std::string_view, 5> kNoFigures = {"Activation", "EntryKey", "Timestamp", "ActivationID",
                                                        "SequenceID"};

// A line a counter: start, end and their difference, which wraps like the counters.
QueryResult memoryChanges(const QueryResult& memory) {
    QueryResult result{.columns = {"Counter", "Start", "End", "Delta"}, .rows = {}};
    if (memory.rows.size() != 2) return result;
    for (const std::string& column : memory.columns) {
        if (std::ranges::find(kNoFigures, column) != kNoFigures.end()) continue;
        const auto start = static_cast<std::uint64_t>(memory.integer(0, column));
        const auto end = static_cast<std::uint64_t>(memory.integer(1, column));
        result.rows.push_back(
            {column, std::to_string(start), std::to_string(end), static_cast<std::int64_t>(end - start)});
    }
    return result;
}

std::string recordText(const QueryResult& record) {
    std::vector<TextRow> lines;
    for (const std::string& column : record.columns) lines.push_back({column, record.text(0, column)});
    std::string out;
    appendTable(out, lines);
    return out;
}

// Runs a command on the store; what goes wrong there is one line for the operator.
template <class Work>
ExitStatus onStore(const ToolServices& services, const Work& work) {
    try {
        PowerLogQuery query(services.powerLogPath);
        return work(query);
    } catch (const std::runtime_error& error) {
        services.error << "quorvixctl: " << error.what() << "\n";
        return ExitStatus::failed;
    }
}

void print(const ToolServices& services, const QueryResult& result, OutputForm form) {
    if (form == OutputForm::json) {
        services.out << jsonText(result.json());
    } else {
        services.out << result.table();
    }
}

}  // namespace

std::optional<std::uint64_t> parseActivationID(std::string_view text) {
    int base = 10;
    if (text.starts_with("0x") || text.starts_with("0X")) {
        text.remove_prefix(2);
        base = 16;
    } else if (std::ranges::any_of(text, [](char c) { return c < '0' || c > '9'; })) {
        base = 16;
    }
    std::uint64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
}

ExitStatus ActivationsCommand::list(std::uint32_t limit, OutputForm form) const {
    return onStore(services_, [&](PowerLogQuery& query) {
        print(services_,
              query.run("SELECT ID, StartedUTC, BundleID, Type, Duration_ms, Result FROM Activations"
                        " ORDER BY Activation DESC LIMIT ?1",
                        {limit}),
              form);
        return ExitStatus::done;
    });
}

ExitStatus ActivationsCommand::show(const std::string& id, OutputForm form) const {
    const std::optional<std::uint64_t> number = parseActivationID(id);
    if (!number) {
        services_.error
            << "quorvixctl: an activation's ID is a number, decimal or hexadecimal; see \"activations list\"\n";
        return ExitStatus::usage;
    }
    return onStore(services_, [&](PowerLogQuery& query) {
        QueryResult record = query.run(kRecord, {static_cast<std::int64_t>(*number)});
        if (record.rows.empty()) {
            services_.error << "quorvixctl: no activation " << *number << " is stored\n";
            return ExitStatus::failed;
        }
        if (record.rows.size() > 1 && form != OutputForm::json) {
            services_.error << "quorvixctl: " << record.rows.size()
                            << " activations have this ID; the newest is shown\n";
        }
        record.rows.resize(1);
        const std::int64_t activation = record.integer(0, "Activation");
        const QueryResult processes = query.run(kProcesses, {activation});
        const QueryResult memory = query.run(kMemory, {activation});
        if (form == OutputForm::console) {
            services_.out << consoleText(processes, memory);
        } else if (form == OutputForm::json) {
            auto json = without(record, {"Activation"}).json()[0];
            json["Processes"] = readableProcesses(processes).json();
            json["Memory"] = memoryChanges(memory).json();
            services_.out << jsonText(json);
        } else {
            services_.out << recordText(without(record, {"Activation"})) << "\nprocesses\n"
                          << readableProcesses(processes).table() << "\nmemory\n"
                          << memoryChanges(memory).table();
        }
        return ExitStatus::done;
    });
}

ExitStatus ActivationsCommand::stats(OutputForm form) const {
    return onStore(services_, [&](PowerLogQuery& query) {
        print(services_, query.run("SELECT * FROM Durations ORDER BY BundleID, Type"), form);
        return ExitStatus::done;
    });
}

}  // namespace quorvix::ctl
