#include "ctl/PowerLogQuery.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <stdexcept>

#include "ctl/Printable.h"
#include "ctl/TextTable.h"
#include "platform/Result.h"
#include "platform/linux/PowerLogSchema.h"
#include "platform/linux/Sqlite.h"
#include "platform/linux/Utf8.h"

namespace quorvix::ctl {

namespace {

std::string cellText(const QueryResult::Cell& cell) {
    if (const auto* number = std::get_if<std::int64_t>(&cell)) return std::to_string(*number);
    if (const auto* text = std::get_if<std::string>(&cell)) {
        return printable(linuxos::withReplacementCharacters(*text));
    }
    if (const auto* real = std::get_if<double>(&cell)) {
        char digits[32];
        return {digits, std::to_chars(digits, digits + sizeof digits, *real).ptr};
    }
    return "-";
}

nlohmann::ordered_json cellJson(const QueryResult::Cell& cell) {
    if (const auto* number = std::get_if<std::int64_t>(&cell)) return *number;
    if (const auto* text = std::get_if<std::string>(&cell)) return linuxos::withReplacementCharacters(*text);
    if (const auto* real = std::get_if<double>(&cell)) return *real;
    return nullptr;
}

std::size_t indexOf(const std::vector<std::string>& columns, std::string_view name) {
    const auto found = std::ranges::find(columns, name);
    if (found == columns.end()) throw std::logic_error("no column " + std::string(name));
    return static_cast<std::size_t>(found - columns.begin());
}

}  // namespace

std::string QueryResult::table() const {
    std::vector<TextRow> lines{columns};
    for (const auto& row : rows) {
        TextRow& line = lines.emplace_back();
        for (const Cell& cell : row) line.push_back(cellText(cell));
    }
    std::string out;
    appendTable(out, lines);
    return out;
}

nlohmann::ordered_json QueryResult::json() const {
    auto list = nlohmann::ordered_json::array();
    for (const auto& row : rows) {
        auto object = nlohmann::ordered_json::object();
        for (std::size_t column = 0; column < columns.size(); ++column) object[columns[column]] = cellJson(row[column]);
        list.push_back(std::move(object));
    }
    return list;
}

std::int64_t QueryResult::integer(std::size_t row, std::string_view column) const {
    const auto* number = std::get_if<std::int64_t>(&rows[row][indexOf(columns, column)]);
    return number ? *number : 0;
}

std::string QueryResult::text(std::size_t row, std::string_view column) const {
    return cellText(rows[row][indexOf(columns, column)]);
}

PowerLogQuery::PowerLogQuery(const std::string& path) {
    if (access(path.c_str(), R_OK) != 0) {
        if (errno == ENOENT) throw std::runtime_error("no activation was stored yet (there is no " + path + ")");
        throw std::runtime_error(path + ": " + ErrorCode{errno}.text());
    }
    // Opening a pipe would wait for its other end for ever.
    struct stat status {};
    if (stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
        throw std::runtime_error(path + " is no plain file");
    }
    database_ = std::make_unique<linuxos::SqliteDatabase>(path, linuxos::SqliteDatabase::kBusyTimeout,
                                                          linuxos::SqliteAccess::readOnly);
    const std::int64_t version = database_->number("PRAGMA user_version");
    // The versions before differ in what makes the file fast; the daemon brings one up at its next activation.
    if (version < 1 || version > linuxos::kPowerLogSchemaVersion) {
        throw std::runtime_error(path + " is of version " + std::to_string(version) + ", which this tool can't read");
    }
}

PowerLogQuery::~PowerLogQuery() = default;

QueryResult PowerLogQuery::run(const std::string& sql, std::initializer_list<std::int64_t> parameters) {
    linuxos::SqliteStatement statement(*database_, sql);
    int parameter = 0;
    for (const std::int64_t value : parameters) statement.bind(++parameter, value);
    QueryResult result;
    for (int column = 0; column < statement.columns(); ++column) result.columns.push_back(statement.name(column));
    while (statement.step()) {
        auto& row = result.rows.emplace_back();
        for (int column = 0; column < statement.columns(); ++column) row.push_back(statement.value(column));
    }
    return result;
}

}  // namespace quorvix::ctl
