#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace quorvix::report {

// Text from a file for a terminal, on one line: names in a report come from apps and from threads that name themselves.
// Control characters (those of two bytes too), marks that turn the direction of writing, and bytes that are no UTF-8
// become escapes such as \x1b and \u202e; a backslash is doubled, so that no name can pretend to be one.
std::string escaped(std::string_view text);
// As UTF-8 whatever the bytes are; for JSON, which escapes the rest by itself.
std::string asUtf8(std::string_view text);

// "4.812 s", "12.3 ms", "450 us".
std::string durationText(std::uint64_t nanoseconds);
// "12.3 %"
std::string percentText(double share);
// "2026-11-21 23:11:03", local time.
std::string localTimeText(std::int64_t realtimeNs);

}  // namespace quorvix::report
