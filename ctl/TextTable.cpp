#include "ctl/TextTable.h"

#include <algorithm>
#include <string_view>

namespace quorvix::ctl {

namespace {

constexpr std::string_view kIndent = "  ";

// Names and paths hold UTF-8, so that characters count and not bytes.
std::size_t width(const std::string& text) {
    return static_cast<std::size_t>(std::ranges::count_if(text, [](char byte) { return (byte & 0xc0) != 0x80; }));
}

}  // namespace

void appendTable(std::string& out, const std::vector<TextRow>& rows) {
    std::vector<std::size_t> widths;
    for (const TextRow& row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (std::size_t column = 0; column < row.size(); ++column) {
            widths[column] = std::max(widths[column], width(row[column]));
        }
    }
    for (const TextRow& row : rows) {
        // Up to the last cell with something in it, and nothing after that one: no line ends in blanks.
        std::size_t cells = row.size();
        while (cells > 0 && row[cells - 1].empty()) --cells;
        for (std::size_t column = 0; column < cells; ++column) {
            out += kIndent;
            out += row[column];
            if (column + 1 < cells) out.append(widths[column] - width(row[column]), ' ');
        }
        out += '\n';
    }
}

}  // namespace quorvix::ctl
