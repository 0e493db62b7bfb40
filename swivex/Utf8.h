#pragma once

#include <string>
#include <string_view>

namespace quorvix::swivex {

// The text with U+FFFD in the place of each byte that is no valid UTF-8: readers refuse a file with any other.
std::string validUtf8(std::string_view text);

}  // namespace quorvix::swivex
