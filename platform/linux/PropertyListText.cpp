#include "platform/linux/PropertyListText.h"

#include <array>
#include <charconv>
#include <chrono>
#include <clocale>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "platform/linux/Utf8.h"

namespace quorvix::linuxos::property_list_text {

namespace {

constexpr std::string_view kWhiteSpace = " \t\r\n";
constexpr std::string_view kBase64 = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::array<std::int8_t, 256> kBase64Values = [] {
    std::array<std::int8_t, 256> values{};
    values.fill(-1);
    for (std::size_t i = 0; i < kBase64.size(); ++i) {
        values[static_cast<unsigned char>(kBase64[i])] = static_cast<std::int8_t>(i);
    }
    return values;
}();

constexpr std::chrono::sys_days kEpoch2001{std::chrono::year{2001} / 1 / 1};

// The digits as a number; nothing when one is not a digit.
std::optional<unsigned> digits(std::string_view text) {
    unsigned value = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') return std::nullopt;
        value = value * 10 + static_cast<unsigned>(c - '0');
    }
    return value;
}

locale_t plainLocale() {
    static const locale_t locale = newlocale(LC_ALL_MASK, "C", nullptr);
    return locale;
}

}  // namespace

std::string_view trimmed(std::string_view text) {
    const std::size_t first = text.find_first_not_of(kWhiteSpace);
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(kWhiteSpace) - first + 1);
}

bool isXmlText(std::string_view text) {
    while (!text.empty()) {
        const std::size_t length = utf8CharacterLength(text);
        if (length == 0) return false;
        const char first = text.front();
        const bool control =
            static_cast<unsigned char>(first) < 0x20 && first != '\t' && first != '\n' && first != '\r';
        // U+FFFE and U+FFFF are no characters.
        const bool none = text.starts_with("\xEF\xBF\xBE") || text.starts_with("\xEF\xBF\xBF");
        if (control || none) return false;
        text.remove_prefix(length);
    }
    return true;
}

std::optional<std::int64_t> parseInteger(std::string_view text) {
    text = trimmed(text);
    if (text.starts_with('+')) {
        text.remove_prefix(1);
        if (text.starts_with('-')) return std::nullopt;
    }
    const char* const end = text.data() + text.size();
    if (text.starts_with('-')) {
        std::int64_t value = 0;
        const auto [stop, error] = std::from_chars(text.data(), end, value);
        if (error != std::errc{} || stop != end) return std::nullopt;
        return value;
    }
    std::uint64_t value = 0;
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc{} || stop != end) return std::nullopt;
    return static_cast<std::int64_t>(value);
}

std::optional<double> parseReal(std::string_view text) {
    text = trimmed(text);
    if (text.starts_with('+')) {
        text.remove_prefix(1);
        if (text.starts_with('-')) return std::nullopt;
    }
    const char* const end = text.data() + text.size();
    double value = 0;
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    if (stop != end) return std::nullopt;
    // Too large or too small for a double: from_chars leaves the value alone, strtod rounds to infinity or to zero.
    if (error == std::errc::result_out_of_range) return strtod_l(std::string(text).c_str(), nullptr, plainLocale());
    if (error != std::errc{}) return std::nullopt;
    return value;
}

std::string realText(double value) {
    if (std::isnan(value)) return "nan";
    if (std::isinf(value)) return value > 0 ? "+infinity" : "-infinity";
    std::array<char, 32> text;
    const auto [end, error] = std::to_chars(text.data(), text.data() + text.size(), value);
    return std::string(text.data(), error == std::errc{} ? end : text.data());
}

std::optional<PropertyListDate> parseDate(std::string_view text) {
    text = trimmed(text);
    if (text.size() != 20 || text[4] != '-' || text[7] != '-' || text[10] != 'T' || text[13] != ':' ||
        text[16] != ':' || text[19] != 'Z') {
        return std::nullopt;
    }
    const auto year = digits(text.substr(0, 4));
    const auto month = digits(text.substr(5, 2));
    const auto day = digits(text.substr(8, 2));
    const auto hour = digits(text.substr(11, 2));
    const auto minute = digits(text.substr(14, 2));
    const auto second = digits(text.substr(17, 2));
    if (!year || !month || !day || !hour || !minute || !second) return std::nullopt;
    const std::chrono::year_month_day date{std::chrono::year{static_cast<int>(*year)}, std::chrono::month{*month},
                                           std::chrono::day{*day}};
    if (!date.ok() || *hour > 23 || *minute > 59 || *second > 59) return std::nullopt;
    const auto days = (std::chrono::sys_days{date} - kEpoch2001).count();
    return PropertyListDate{static_cast<double>(days) * 86400.0 +
                            static_cast<double>(*hour * 3600 + *minute * 60 + *second)};
}

std::optional<std::string> dateText(PropertyListDate date) {
    // Some 31000 years: what is farther away is no date of ours, and might not fit the calendar.
    constexpr double kFarAway = 1e12;
    const double whole = std::floor(date.secondsSince2001);
    if (!(std::abs(whole) < kFarAway)) return std::nullopt;
    const std::chrono::sys_seconds time = kEpoch2001 + std::chrono::seconds{static_cast<std::int64_t>(whole)};
    const auto day = std::chrono::floor<std::chrono::days>(time);
    const std::chrono::year_month_day calendar{day};
    const std::chrono::hh_mm_ss clock{time - day};
    const int year = static_cast<int>(calendar.year());
    if (year < 0 || year > 9999) return std::nullopt;
    std::array<char, 64> text;
    std::snprintf(text.data(), text.size(), "%04d-%02u-%02uT%02d:%02d:%02dZ", year,
                  static_cast<unsigned>(calendar.month()), static_cast<unsigned>(calendar.day()),
                  static_cast<int>(clock.hours().count()), static_cast<int>(clock.minutes().count()),
                  static_cast<int>(clock.seconds().count()));
    return std::string(text.data());
}

std::optional<std::vector<std::uint8_t>> parseData(std::string_view text) {
    std::vector<std::uint8_t> bytes;
    std::uint32_t bits = 0;
    std::size_t characters = 0;
    std::size_t padding = 0;
    for (const char c : text) {
        if (kWhiteSpace.find(c) != std::string_view::npos) continue;
        if (c == '=') {
            ++padding;
            continue;
        }
        const int value = int{kBase64Values[static_cast<unsigned char>(c)]};
        if (value < 0 || padding > 0) return std::nullopt;
        bits = bits << 6 | static_cast<std::uint32_t>(value);
        if (++characters % 4 == 0) {
            bytes.push_back(static_cast<std::uint8_t>(bits >> 16));
            bytes.push_back(static_cast<std::uint8_t>(bits >> 8));
            bytes.push_back(static_cast<std::uint8_t>(bits));
        }
    }
    switch (characters % 4) {
        case 0: return padding == 0 ? std::optional(bytes) : std::nullopt;
        case 2:
            if (padding != 2) return std::nullopt;
            bytes.push_back(static_cast<std::uint8_t>(bits >> 4));
            return bytes;
        case 3:
            if (padding != 1) return std::nullopt;
            bytes.push_back(static_cast<std::uint8_t>(bits >> 10));
            bytes.push_back(static_cast<std::uint8_t>(bits >> 2));
            return bytes;
        default: return std::nullopt;
    }
}

std::string dataText(const std::vector<std::uint8_t>& bytes) {
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    for (std::size_t at = 0; at < bytes.size(); at += 3) {
        const std::size_t left = bytes.size() - at;
        const auto byte = [&](std::size_t i) { return i < left ? std::uint32_t{bytes[at + i]} : 0u; };
        const std::uint32_t bits = byte(0) << 16 | byte(1) << 8 | byte(2);
        text += kBase64[bits >> 18];
        text += kBase64[bits >> 12 & 63];
        text += left > 1 ? kBase64[bits >> 6 & 63] : '=';
        text += left > 2 ? kBase64[bits & 63] : '=';
    }
    return text;
}

}  // namespace quorvix::linuxos::property_list_text
