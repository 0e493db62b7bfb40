#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

// Text from outside on its way to a terminal. Names come from apps, and a terminal obeys what it is shown.

namespace quorvix::ctl {

// One line without control characters, those above 0x7f and those that turn the direction of writing included: each
// becomes '?'. What is no UTF-8 becomes U+FFFD.
std::string printable(std::string_view text);

// A JSON document in plain ASCII, indented, with its line feed: everything else is escaped, so that it is safe to look
// at and parses to what it was.
std::string jsonText(const nlohmann::ordered_json& document);

}  // namespace quorvix::ctl
