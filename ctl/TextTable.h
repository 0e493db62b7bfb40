#pragma once

#include <string>
#include <vector>

namespace quorvix::ctl {

using TextRow = std::vector<std::string>;

// Appends a table to read: columns as wide as their widest cell in characters, no line ending in blanks. Cells are
// UTF-8 and printable already.
void appendTable(std::string& out, const std::vector<TextRow>& rows);

}  // namespace quorvix::ctl
