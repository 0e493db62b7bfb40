#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace quorvix::linuxos {

enum class PowerLogColumnKind : std::uint8_t { real, signedInteger, unsignedInteger, text };

// A key of an event's rows, under its own name.
struct PowerLogColumn {
    std::string_view name;
    PowerLogColumnKind kind;
};

// An event's table, named like the event.
struct PowerLogTable {
    std::string_view name;
    std::span<const PowerLogColumn> columns;
};

inline constexpr std::int64_t kPowerLogSchemaVersion = 2;
inline constexpr std::int32_t kPowerLogActivationCategory = 74;
inline constexpr std::size_t kPowerLogTableCount = 4;

// The four events of an activation in the order in which they are sent. The first is one row, the others are one row an
// entry.
const std::array<PowerLogTable, kPowerLogTableCount>& powerLogTables();

// Which of them an event is; nothing: none that is known.
std::optional<std::size_t> powerLogTableOf(std::int32_t category, std::string_view name);

// Tables, indices and views (docs/power-log.md), version included, as one transaction.
std::string powerLogSchemaSql();
// What brings a file of an older version to this one (platform/linux/StoreMigration.h).
std::span<const std::string_view> powerLogMigrations();
// An INSERT of a row: for the first table StoredAt and its columns, for the others Activation, EntryKey and theirs.
std::string powerLogInsertSql(std::size_t table);

}  // namespace quorvix::linuxos
