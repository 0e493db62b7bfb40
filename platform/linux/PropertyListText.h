#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/PropertyList.h"

// The text forms of a property list's scalar values, each with its inverse. None depends on the locale.

namespace quorvix::linuxos::property_list_text {

std::string_view trimmed(std::string_view text);
// Valid UTF-8 of characters that XML allows.
bool isXmlText(std::string_view text);

std::optional<std::int64_t> parseInteger(std::string_view text);

std::optional<double> parseReal(std::string_view text);
// The shortest text that reads back as the same number.
std::string realText(double value);

std::optional<PropertyListDate> parseDate(std::string_view text);
// Nothing outside the years 0..9999.
std::optional<std::string> dateText(PropertyListDate date);

// Base64; white space between the characters is skipped, padding is required.
std::optional<std::vector<std::uint8_t>> parseData(std::string_view text);
std::string dataText(const std::vector<std::uint8_t>& bytes);

}  // namespace quorvix::linuxos::property_list_text
