#pragma once

#include <string>

namespace quorvix {

// printf behind a string's end, for the tables whose columns are given as printf formats.
[[gnu::format(printf, 2, 3)]] void appendPrintf(std::string& out, const char* format, ...);

}  // namespace quorvix
