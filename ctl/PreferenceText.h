#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "ctl/KnownPreferences.h"
#include "ctl/Printable.h"
#include "platform/PropertyList.h"

// Preference values as the operator types and reads them.

namespace quorvix::ctl {

// "bool", "int", "uint", "real", "string": what --type takes.
std::string_view kindName(PreferenceKind kind);
std::optional<PreferenceKind> kindNamed(std::string_view name);
// What a value of that kind looks like, for messages: "true or false".
std::string_view expectation(PreferenceKind kind);

// Nothing: the text is no value of that kind. The whole text counts, so that "60s" is no number.
std::optional<PropertyListValue> parseValue(std::string_view text, PreferenceKind kind);
// Whether a stored value is what the daemon takes for that kind: all numbers stand in for each other.
bool isOfKind(const PropertyListValue& value, PreferenceKind kind);
// One line, without control characters.
std::string valueText(const PropertyListValue& value);
// As JSON holds it: data as its length, a date as seconds since 2001, what is not finite as text.
nlohmann::ordered_json valueJson(const PropertyListValue& value);
// The kind of a stored value, in a word.
std::string_view storedKindName(const PropertyListValue& value);

}  // namespace quorvix::ctl
