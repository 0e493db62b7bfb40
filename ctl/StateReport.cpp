#include "ctl/StateReport.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>
#include <vector>

#include "ctl/Printable.h"
#include "ctl/TextTable.h"

namespace quorvix::ctl {

namespace {

using Json = nlohmann::ordered_json;
using Row = TextRow;

std::string cell(const Json& value) {
    if (value.is_null()) return "-";
    if (value.is_array() && value.empty()) return "none";
    if (value.is_string()) return printable(value.get_ref<const std::string&>());
    return printable(value.dump());
}

// One row a member; a group in the group is one path a row: "hangs.regionFaults".
void collectRows(const Json& object, const std::string& prefix, std::vector<Row>& rows) {
    for (const auto& [name, value] : object.items()) {
        if (value.is_object()) {
            collectRows(value, prefix + printable(name) + ".", rows);
        } else {
            rows.push_back({prefix + printable(name), cell(value)});
        }
    }
}

// One column a member name, in the order of first appearance; a missing member is an empty cell.
std::vector<Row> recordRows(const Json& records) {
    Row names;
    for (const Json& record : records) {
        for (const auto& [name, value] : record.items()) {
            if (std::ranges::find(names, name) == names.end()) names.push_back(name);
        }
    }
    Row header;
    for (const std::string& name : names) header.push_back(printable(name));
    std::vector<Row> rows{header};
    for (const Json& record : records) {
        Row row;
        for (const std::string& name : names) row.push_back(record.contains(name) ? cell(record.at(name)) : "");
        rows.push_back(std::move(row));
    }
    return rows;
}

std::string listTitle(const std::string& name, const Json& list) {
    return printable(name) + " (" + std::to_string(list.size()) + ")\n";
}

void appendSection(std::string& out, const std::string& name, const Json& value) {
    std::vector<Row> rows;
    out += '\n';
    if (value.is_object()) {
        out += printable(name) + '\n';
        collectRows(value, "", rows);
    } else {
        out += listTitle(name, value);
        if (!value.empty() && std::ranges::all_of(value, [](const Json& entry) { return entry.is_object(); })) {
            rows = recordRows(value);
        } else {
            for (const Json& entry : value) rows.push_back({cell(entry)});
        }
    }
    if (rows.empty()) rows.push_back({"none"});
    appendTable(out, rows);
}

}  // namespace

std::string stateReport(const Json& state) {
    std::vector<Row> single;
    for (const auto& [name, value] : state.items()) {
        if (!value.is_structured()) single.push_back({printable(name), cell(value)});
    }
    std::string out = "quorvixd\n";
    appendTable(out, single);
    for (const auto& [name, value] : state.items()) {
        if (value.is_structured()) appendSection(out, name, value);
    }
    return out;
}

}  // namespace quorvix::ctl
