#include "ctl/PreferenceText.h"

#include <charconv>
#include <cmath>
#include <cstdint>
#include <limits>
#include <nlohmann/json.hpp>

namespace quorvix::ctl {

namespace {

struct KindText {
    PreferenceKind kind;
    std::string_view name;
    std::string_view expectation;
};

constexpr KindText kKinds[] = {
    {PreferenceKind::boolean, "bool", "true or false"},
    {PreferenceKind::integer32, "int", "a whole number from -2147483648 to 2147483647"},
    {PreferenceKind::unsigned32, "uint", "a whole number from 0 to 4294967295"},
    {PreferenceKind::real, "real", "a number such as 60 or 0.5"},
    {PreferenceKind::text, "string", "any text"},
};

const KindText& textsOf(PreferenceKind kind) {
    for (const KindText& texts : kKinds) {
        if (texts.kind == kind) return texts;
    }
    return kKinds[0];
}

std::optional<PropertyListValue> parseBoolean(std::string_view text) {
    if (text == "true" || text == "yes" || text == "on" || text == "1") return PropertyListValue(true);
    if (text == "false" || text == "no" || text == "off" || text == "0") return PropertyListValue(false);
    return std::nullopt;
}

template <class Integer>
std::optional<PropertyListValue> parseInteger(std::string_view text) {
    Integer value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return PropertyListValue(std::int64_t{value});
}

std::optional<PropertyListValue> parseReal(std::string_view text) {
    double value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || !std::isfinite(value)) return std::nullopt;
    return PropertyListValue(value);
}

std::string realText(double value) {
    char digits[32];
    const auto [end, error] = std::to_chars(digits, digits + sizeof digits, value);
    return error == std::errc() ? std::string(digits, end) : std::string("?");
}

struct ValueText {
    std::string operator()(bool value) const { return value ? "true" : "false"; }
    std::string operator()(std::int64_t value) const { return std::to_string(value); }
    std::string operator()(double value) const { return realText(value); }
    std::string operator()(const std::string& value) const { return printable(value); }
    std::string operator()(const PropertyListDate& value) const {
        return realText(value.secondsSince2001) + " s since 2001-01-01 00:00:00 UTC";
    }
    std::string operator()(const PropertyListData& value) const {
        return std::to_string(value.bytes.size()) + " bytes";
    }
    std::string operator()(const PropertyListArray& value) const { return std::to_string(value.size()) + " values"; }
    std::string operator()(const PropertyListDictionary& value) const { return std::to_string(value.size()) + " keys"; }
};

struct ValueJson {
    using Json = nlohmann::ordered_json;
    Json operator()(bool value) const { return value; }
    Json operator()(std::int64_t value) const { return value; }
    Json operator()(double value) const { return std::isfinite(value) ? Json(value) : Json(realText(value)); }
    Json operator()(const std::string& value) const { return value; }
    Json operator()(const PropertyListDate& value) const { return value.secondsSince2001; }
    Json operator()(const PropertyListData& value) const { return {{"bytes", value.bytes.size()}}; }
    Json operator()(const PropertyListArray& value) const {
        Json array = Json::array();
        for (const PropertyListValue& entry : value) array.push_back(valueJson(entry));
        return array;
    }
    Json operator()(const PropertyListDictionary& value) const {
        Json object = Json::object();
        for (const auto& [key, entry] : value) object[key] = valueJson(entry);
        return object;
    }
};

struct StoredKindName {
    std::string_view operator()(bool) const { return "bool"; }
    std::string_view operator()(std::int64_t) const { return "int"; }
    std::string_view operator()(double) const { return "real"; }
    std::string_view operator()(const std::string&) const { return "string"; }
    std::string_view operator()(const PropertyListDate&) const { return "date"; }
    std::string_view operator()(const PropertyListData&) const { return "data"; }
    std::string_view operator()(const PropertyListArray&) const { return "array"; }
    std::string_view operator()(const PropertyListDictionary&) const { return "dictionary"; }
};

}  // namespace

std::string_view kindName(PreferenceKind kind) { return textsOf(kind).name; }

std::optional<PreferenceKind> kindNamed(std::string_view name) {
    for (const KindText& texts : kKinds) {
        if (texts.name == name) return texts.kind;
    }
    return std::nullopt;
}

std::string_view expectation(PreferenceKind kind) { return textsOf(kind).expectation; }

std::optional<PropertyListValue> parseValue(std::string_view text, PreferenceKind kind) {
    switch (kind) {
        case PreferenceKind::boolean: return parseBoolean(text);
        case PreferenceKind::integer32: return parseInteger<std::int32_t>(text);
        case PreferenceKind::unsigned32: return parseInteger<std::uint32_t>(text);
        case PreferenceKind::real: return parseReal(text);
        case PreferenceKind::text: return PropertyListValue(std::string(text));
    }
    return std::nullopt;
}

bool isOfKind(const PropertyListValue& value, PreferenceKind kind) {
    return kind == PreferenceKind::text ? std::holds_alternative<std::string>(value.content()) : value.isNumber();
}

std::string valueText(const PropertyListValue& value) { return std::visit(ValueText{}, value.content()); }

nlohmann::ordered_json valueJson(const PropertyListValue& value) { return std::visit(ValueJson{}, value.content()); }

std::string_view storedKindName(const PropertyListValue& value) {
    return std::visit(StoredKindName{}, value.content());
}

}  // namespace quorvix::ctl
