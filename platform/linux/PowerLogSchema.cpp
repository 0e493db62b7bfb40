#include "platform/linux/PowerLogSchema.h"

namespace quorvix::linuxos {

namespace {

using enum PowerLogColumnKind;

constexpr PowerLogColumn kActivationData[] = {
    {"Timestamp", real},
    {"ActivationID", unsignedInteger},
    {"UniqueID", unsignedInteger},
    {"SystemUptime", signedInteger},
    {"BundleID", text},
    {"ActivationDuration_ms", unsignedInteger},
    {"ActivationResult", unsignedInteger},
    {"ActivationType", unsignedInteger},
    {"ActivationFlags", unsignedInteger},
};

constexpr PowerLogColumn kProcessData[] = {
    {"Timestamp", real},
    {"UniqueID", unsignedInteger},
    {"ProcessName", text},
};

constexpr PowerLogColumn kCPUStatistics[] = {
    {"Timestamp", real},
    {"ActivationID", unsignedInteger},
    {"UniqueID", unsignedInteger},
    {"TotalCPU_ms", unsignedInteger},
    {"QOSDisabled_ms", unsignedInteger},
    {"QOSUserInteractive_ms", unsignedInteger},
    {"QOSUserInitiated_ms", unsignedInteger},
    {"QOSDefault_ms", unsignedInteger},
    {"QOSUtility_ms", unsignedInteger},
    {"QOSMaintenance_ms", unsignedInteger},
    {"QOSBackground_ms", unsignedInteger},
    {"IOReads_kb", unsignedInteger},
    {"IOWrites_kb", unsignedInteger},
    {"PageIns", unsignedInteger},
    {"ProcessLifecycleState", unsignedInteger},
};

constexpr PowerLogColumn kMemoryStatistics[] = {
    {"FreeQueue", unsignedInteger},
    {"ActiveQueue", unsignedInteger},
    {"SpeculativeQueue", unsignedInteger},
    {"InactiveQueue", unsignedInteger},
    {"ThrottledQueue", unsignedInteger},
    {"WiredQueue", unsignedInteger},
    {"PurgeableQueue", unsignedInteger},
    {"FileBackedQueue", unsignedInteger},
    {"AnonymousQueue", unsignedInteger},
    {"CompressorSize", unsignedInteger},
    {"Faults", unsignedInteger},
    {"CopyOnWriteFault", unsignedInteger},
    {"ZeroFill", unsignedInteger},
    {"Reactivated", unsignedInteger},
    {"Purged", unsignedInteger},
    {"TotalCompressed", unsignedInteger},
    {"Decompressions", unsignedInteger},
    {"Compressions", unsignedInteger},
    {"PageIns", unsignedInteger},
    {"PageOuts", unsignedInteger},
    {"SwapIns", unsignedInteger},
    {"SwapOuts", unsignedInteger},
    {"Timestamp", real},
    {"ActivationID", unsignedInteger},
    {"SequenceID", unsignedInteger},
};

constexpr std::array<PowerLogTable, kPowerLogTableCount> kTables{{
    {"ActivationData", kActivationData},
    {"ProcessData", kProcessData},
    {"CPUStatistics", kCPUStatistics},
    {"MemoryStatistics", kMemoryStatistics},
}};

// The tables whose rows go with their activation. Names stay as long as another activation's rows need them.
constexpr std::size_t kProcessDataTable = 1;

std::string_view sqlType(PowerLogColumnKind kind) {
    switch (kind) {
        case real: return "REAL";
        case text: return "TEXT";
        default: return "INTEGER";
    }
}

std::string createTable(std::size_t index) {
    const PowerLogTable& table = kTables[index];
    std::string sql = "CREATE TABLE " + std::string(table.name);
    // Numbers of activations that went are never given again: names may still belong to one.
    sql += index == 0 ? " (Activation INTEGER PRIMARY KEY AUTOINCREMENT, StoredAt INTEGER NOT NULL"
                      : " (Activation INTEGER NOT NULL, EntryKey INTEGER NOT NULL";
    for (const PowerLogColumn& column : table.columns) {
        sql += ", " + std::string(column.name) + " " + std::string(sqlType(column.kind));
    }
    if (index == 0) return sql + ");";
    sql += ", PRIMARY KEY (Activation, EntryKey)";
    if (index != kProcessDataTable) {
        sql += ", FOREIGN KEY (Activation) REFERENCES ActivationData (Activation) ON DELETE CASCADE";
    }
    return sql + ") WITHOUT ROWID;";
}

// 32: an end without a begin, 33: a begin without an end. Neither has a duration that means anything.
// Percentiles are nearest rank: the smallest duration that at least so many percent do not exceed.
constexpr std::string_view kViews = R"(
CREATE VIEW Activations AS
SELECT Activation,
       printf('%llu', ActivationID) AS ID,
       datetime(Timestamp + 978307200, 'unixepoch') AS StartedUTC,
       BundleID,
       CASE ActivationType WHEN 1 THEN 'launch' ELSE 'resume' END AS Type,
       ActivationDuration_ms AS Duration_ms,
       ActivationResult AS Result,
       ActivationResult NOT IN (32, 33) AS Complete
FROM ActivationData;

CREATE VIEW Durations AS
SELECT BundleID, Type, count(*) AS Count, min(Duration_ms) AS Min_ms,
       max(CASE WHEN Rank = (Number * 50 + 99) / 100 THEN Duration_ms END) AS P50_ms,
       max(CASE WHEN Rank = (Number * 90 + 99) / 100 THEN Duration_ms END) AS P90_ms,
       max(CASE WHEN Rank = (Number * 99 + 99) / 100 THEN Duration_ms END) AS P99_ms,
       max(Duration_ms) AS Max_ms
FROM (SELECT BundleID, Type, Duration_ms,
             row_number() OVER (PARTITION BY BundleID, Type ORDER BY Duration_ms) AS Rank,
             count(*) OVER (PARTITION BY BundleID, Type) AS Number
      FROM Activations WHERE Complete)
GROUP BY BundleID, Type;

CREATE VIEW WorstLaunches AS
SELECT ID, StartedUTC, BundleID, Duration_ms, Result, Activation
FROM Activations WHERE Type = 'launch' AND Complete
ORDER BY Duration_ms DESC, Activation DESC;

CREATE VIEW CPUByActivation AS
SELECT a.ID, a.StartedUTC, a.BundleID, a.Type, a.Duration_ms,
       coalesce(p.ProcessName, '?') AS ProcessName,
       c.TotalCPU_ms, c.QOSDisabled_ms, c.QOSUserInteractive_ms, c.QOSUserInitiated_ms, c.QOSDefault_ms,
       c.QOSUtility_ms, c.QOSMaintenance_ms, c.QOSBackground_ms, c.IOReads_kb, c.IOWrites_kb, c.PageIns,
       CASE c.ProcessLifecycleState WHEN 0 THEN 'alive' WHEN 1 THEN 'new' ELSE 'dead' END AS State,
       c.EntryKey, a.Activation
FROM CPUStatistics c JOIN Activations a USING (Activation)
     LEFT JOIN (SELECT UniqueID, ProcessName, max(Activation) FROM ProcessData GROUP BY UniqueID) p USING (UniqueID);

CREATE VIEW IOByActivation AS
SELECT a.ID, a.StartedUTC, a.BundleID, a.Type, a.Duration_ms,
       (SELECT sum(IOReads_kb) FROM CPUStatistics c WHERE c.Activation = a.Activation) AS IOReads_kb,
       (SELECT sum(IOWrites_kb) FROM CPUStatistics c WHERE c.Activation = a.Activation) AS IOWrites_kb,
       (SELECT sum(PageIns) FROM CPUStatistics c WHERE c.Activation = a.Activation) AS PageIns,
       e.PageIns - s.PageIns AS HostPageIns, e.PageOuts - s.PageOuts AS HostPageOuts,
       e.Faults - s.Faults AS HostFaults, e.SwapIns - s.SwapIns AS HostSwapIns, a.Activation
FROM Activations a
LEFT JOIN MemoryStatistics s ON s.Activation = a.Activation AND s.EntryKey = 1
LEFT JOIN MemoryStatistics e ON e.Activation = a.Activation AND e.EntryKey = 2;
)";

}  // namespace

const std::array<PowerLogTable, kPowerLogTableCount>& powerLogTables() { return kTables; }

std::optional<std::size_t> powerLogTableOf(std::int32_t category, std::string_view name) {
    if (category != kPowerLogActivationCategory) return std::nullopt;
    for (std::size_t index = 0; index < kTables.size(); ++index) {
        if (kTables[index].name == name) return index;
    }
    return std::nullopt;
}

std::string powerLogSchemaSql() {
    std::string sql = "BEGIN IMMEDIATE;";
    for (std::size_t index = 0; index < kTables.size(); ++index) sql += createTable(index);
    // None of the many rows has an index beside its key, which grows at its end: identifiers of processes are hashes,
    // and each would change another page of an index.
    sql +=
        "CREATE INDEX ActivationsByAge ON ActivationData (StoredAt);"
        "CREATE INDEX ActivationsByID ON ActivationData (ActivationID);";
    sql += kViews;
    return sql + "PRAGMA user_version = " + std::to_string(kPowerLogSchemaVersion) + "; COMMIT;";
}

std::span<const std::string_view> powerLogMigrations() {
    static constexpr std::array<std::string_view, kPowerLogSchemaVersion - 1> kSteps{
        // An index by identifier, which cost more to keep than all it was asked.
        "DROP INDEX IF EXISTS ProcessNames",
    };
    return kSteps;
}

std::string powerLogInsertSql(std::size_t table) {
    std::string columns = table == 0 ? "StoredAt" : "Activation, EntryKey";
    std::string parameters = table == 0 ? "?" : "?, ?";
    for (const PowerLogColumn& column : kTables[table].columns) {
        columns += ", " + std::string(column.name);
        parameters += ", ?";
    }
    return "INSERT INTO " + std::string(kTables[table].name) + " (" + columns + ") VALUES (" + parameters + ")";
}

}  // namespace quorvix::linuxos
