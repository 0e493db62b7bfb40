#pragma once

#include <cmath>
#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace quorvix {

class PropertyListValue;

using PropertyListArray = std::vector<PropertyListValue>;
using PropertyListDictionary = std::map<std::string, PropertyListValue, std::less<>>;

struct PropertyListDate {
    double secondsSince2001;
    bool operator==(const PropertyListDate&) const = default;
};

struct PropertyListData {
    std::vector<std::uint8_t> bytes;
    bool operator==(const PropertyListData&) const = default;
};

// One value of a property list. Booleans, integers and reals are numbers; the number getters answer nothing for all
// other kinds. Conversions: a real saturates at the bounds of the type asked for, its fraction is cut, NaN is 0; an
// integer gives its low 32 bits where 32 are asked; a boolean is 1 or 0.
class PropertyListValue {
public:
    // An integer keeps 64 bits; values above INT64_MAX arrive as their two's complement.
    using Content = std::variant<bool, std::int64_t, double, std::string, PropertyListDate, PropertyListData,
                                 PropertyListArray, PropertyListDictionary>;

    PropertyListValue(bool value) : content_(value) {}
    PropertyListValue(std::int64_t value) : content_(value) {}
    PropertyListValue(int value) : content_(std::int64_t{value}) {}
    PropertyListValue(double value) : content_(value) {}
    PropertyListValue(const char* text) : content_(std::string(text)) {}
    PropertyListValue(std::string text) : content_(std::move(text)) {}
    PropertyListValue(PropertyListDate date) : content_(date) {}
    PropertyListValue(PropertyListData data) : content_(std::move(data)) {}
    PropertyListValue(PropertyListArray values) : content_(std::move(values)) {}
    PropertyListValue(PropertyListDictionary values) : content_(std::move(values)) {}

    bool isNumber() const { return content_.index() <= 2; }
    // Not 0; NaN counts as 0.
    std::optional<bool> boolean() const;
    std::optional<std::int32_t> int32() const { return number<std::int32_t>(); }
    std::optional<std::uint32_t> uint32() const { return number<std::uint32_t>(); }
    std::optional<double> real() const;
    std::optional<float> single() const;

    const Content& content() const { return content_; }
    bool operator==(const PropertyListValue&) const = default;

private:
    template <class Integer>
    std::optional<Integer> number() const;

    Content content_;
};

// Double to integer as the platform does it everywhere: saturates, NaN is 0.
template <class Integer>
Integer saturated(double value) {
    if (std::isnan(value)) return 0;
    // Both limits as doubles: the upper one rounds up to a power of two for 64 bits, hence >=.
    if (value <= static_cast<double>(std::numeric_limits<Integer>::min())) return std::numeric_limits<Integer>::min();
    if (value >= static_cast<double>(std::numeric_limits<Integer>::max())) return std::numeric_limits<Integer>::max();
    return static_cast<Integer>(value);
}

template <class Integer>
std::optional<Integer> PropertyListValue::number() const {
    if (const bool* value = std::get_if<bool>(&content_)) return Integer{*value};
    if (const std::int64_t* value = std::get_if<std::int64_t>(&content_)) return static_cast<Integer>(*value);
    if (const double* value = std::get_if<double>(&content_)) return saturated<Integer>(*value);
    return std::nullopt;
}

inline std::optional<double> PropertyListValue::real() const {
    if (const bool* value = std::get_if<bool>(&content_)) return *value ? 1.0 : 0.0;
    if (const std::int64_t* value = std::get_if<std::int64_t>(&content_)) return static_cast<double>(*value);
    if (const double* value = std::get_if<double>(&content_)) return *value;
    return std::nullopt;
}

inline std::optional<float> PropertyListValue::single() const {
    if (const std::int64_t* value = std::get_if<std::int64_t>(&content_)) return static_cast<float>(*value);
    if (const std::optional<double> value = real()) return static_cast<float>(*value);
    return std::nullopt;
}

inline std::optional<bool> PropertyListValue::boolean() const {
    const std::optional<double> value = real();
    if (!value) return std::nullopt;
    return *value != 0.0 && !std::isnan(*value);
}

}  // namespace quorvix
