#pragma once

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <variant>
#include <vector>

namespace quorvix::linuxos {
class SqliteDatabase;
}

namespace quorvix::ctl {

// The rows of a query with their columns' names.
struct QueryResult {
    using Cell = std::variant<std::monostate, std::int64_t, double, std::string>;

    std::vector<std::string> columns;
    std::vector<std::vector<Cell>> rows;

    // A table to read, a row a line, under the columns' names.
    std::string table() const;
    // A list of objects. Bytes that are no UTF-8 show as U+FFFD.
    nlohmann::ordered_json json() const;
    // Of a row's column that is there; 0 where it holds no number.
    std::int64_t integer(std::size_t row, std::string_view column) const;
    std::string text(std::size_t row, std::string_view column) const;
};

// Reads the daemon's power log (docs/power-log.md) while the daemon writes it. Never writes. Throws std::runtime_error
// with a text for the operator.
class PowerLogQuery {
public:
    explicit PowerLogQuery(const std::string& path);
    ~PowerLogQuery();

    QueryResult run(const std::string& sql, std::initializer_list<std::int64_t> parameters = {});

private:
    std::unique_ptr<linuxos::SqliteDatabase> database_;
};

}  // namespace quorvix::ctl
