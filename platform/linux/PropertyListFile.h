#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "platform/PropertyList.h"
#include "platform/Result.h"

// Property lists as XML text: parsing and writing, no files. Lists are edited by hand and read by a root daemon, so
// every bound holds in both directions: nothing is written that would not be read back, and nothing is read that
// could not be written again.
//
//   <plist version="1.0">   true false integer real string date data array dict
//
// A DOCTYPE line is skipped; one that declares entities is refused, so there is nothing to expand. An integer is
// decimal, -2^63..2^64-1 (above INT64_MAX: its two's complement). A real may be nan, infinity, +infinity, -infinity. A
// date is yyyy-MM-ddTHH:mm:ssZ; fractions of a second are not kept. A key that comes twice is malformed.

namespace quorvix::linuxos {

inline constexpr std::size_t kPropertyListMaxBytes = 1024 * 1024;
// Arrays and dictionaries inside each other, the outermost included.
inline constexpr int kPropertyListMaxDepth = 64;

// EINVAL: malformed, or deeper than the limit. EFBIG: longer than the limit.
Result<PropertyListValue> parsePropertyList(std::string_view text);
// The same for a list whose outermost value must be a dictionary; EINVAL when it is another kind.
Result<PropertyListDictionary> parsePropertyListDictionary(std::string_view text);

// Stable text, keys in order, one value a line. EILSEQ: a text that XML can't hold (not UTF-8, or control characters
// other than tab, line feed, return). EDOM: a date outside the years 0..9999. EINVAL, EFBIG: as above.
Result<std::string> writePropertyList(const PropertyListValue& value);

}  // namespace quorvix::linuxos
