#pragma once

#include <chrono>
#include <concepts>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

#include "platform/Json.h"
#include "platform/Result.h"
#include "platform/Time.h"

namespace quorvix {

// What "%p" shows: an object's address, or a stable number in simulation.
struct ObjectId {
    std::uint64_t value = 0;
};

// Text forms of what "%@" takes. Nothing is "(null)".
inline constexpr std::string_view kNullText = "(null)";

inline void appendTextForm(std::string& out, std::string_view text) { out += text; }
inline void appendTextForm(std::string& out, const char* text) { out += text ? std::string_view(text) : kNullText; }
inline void appendTextForm(std::string& out, ErrorCode error) { out += error.text(); }
// "yyyy-MM-dd HH:mm:ss +0000", in UTC; what is smaller than a second is cut.
inline void appendTextForm(std::string& out, WallTime time) {
    const auto day = std::chrono::floor<std::chrono::days>(time);
    const std::chrono::year_month_day date(day);
    const std::chrono::hh_mm_ss clock(std::chrono::floor<std::chrono::seconds>(time - day));
    char text[48];
    std::snprintf(text, sizeof text, "%04d-%02u-%02u %02d:%02d:%02d +0000", static_cast<int>(date.year()),
                  static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                  static_cast<int>(clock.hours().count()), static_cast<int>(clock.minutes().count()),
                  static_cast<int>(clock.seconds().count()));
    out += text;
}
inline void appendTextForm(std::string& out, const JsonObject& object);

template <class T>
void appendTextForm(std::string& out, const std::optional<T>& value) {
    if (value) {
        appendTextForm(out, *value);
    } else {
        out += kNullText;
    }
}

namespace text_format {

inline void appendJson(std::string& out, const JsonValue& value);

inline void appendQuoted(std::string& out, std::string_view text) {
    out += '"';
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (c == '\n') {
            out += "\\n";
        } else if (byte < 0x20) {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\u%04x", byte);
            out += escape;
        } else {
            out += c;
        }
    }
    out += '"';
}

enum class Kind { object, text, signed32, unsigned32, signed64, unsigned64, hex64, size, real, pointer, none };

struct Conversion {
    Kind kind = Kind::none;
    int precision = -1;
    std::size_t length = 0;  // characters of the conversion, the percent sign included; 0: not one we know
};

// Reads the conversion at text[0] == '%'.
constexpr Conversion readConversion(std::string_view text) {
    std::size_t at = 1;
    Conversion conversion;
    if (at < text.size() && text[at] == '.') {
        conversion.precision = 0;
        for (++at; at < text.size() && text[at] >= '0' && text[at] <= '9'; ++at) {
            conversion.precision = conversion.precision * 10 + (text[at] - '0');
        }
    }
    const std::string_view rest = text.substr(at);
    const auto is = [&](std::string_view letters, Kind kind, bool precisionAllowed) {
        if (!rest.starts_with(letters) || (conversion.precision >= 0 && !precisionAllowed)) return false;
        conversion.kind = kind;
        conversion.length = at + letters.size();
        return true;
    };
    (void)(is("@", Kind::object, false) || is("s", Kind::text, true) || is("d", Kind::signed32, false) ||
           is("i", Kind::signed32, false) || is("u", Kind::unsigned32, false) || is("lld", Kind::signed64, false) ||
           is("llu", Kind::unsigned64, false) || is("llx", Kind::hex64, false) || is("zu", Kind::size, false) ||
           is("f", Kind::real, true) || is("p", Kind::pointer, false));
    return conversion;
}

template <class T>
concept HasTextForm = requires(std::string& out, const T& value) {
    appendTextForm(out, value);
};

template <class T>
concept IsText = std::convertible_to<const T&, std::string_view> || std::same_as<T, ErrorCode> ||
    std::same_as<T, std::optional<std::string>> || std::same_as<T, std::optional<std::string_view>>;

template <class T>
constexpr bool fits(Kind kind) {
    switch (kind) {
        case Kind::object: return HasTextForm<T> && !std::is_arithmetic_v<T>;
        case Kind::text: return IsText<T>;
        case Kind::signed32: return std::same_as<T, std::int32_t> || std::same_as<T, bool>;
        case Kind::unsigned32: return std::same_as<T, std::uint32_t>;
        case Kind::signed64: return std::same_as<T, std::int64_t>;
        case Kind::unsigned64: return std::same_as<T, std::uint64_t>;
        case Kind::hex64: return std::same_as<T, std::uint64_t>;
        case Kind::size: return std::same_as<T, std::size_t>;
        case Kind::real: return std::same_as<T, double>;
        case Kind::pointer: return std::same_as<T, ObjectId>;
        case Kind::none: return false;
    }
    return false;
}

template <class T>
void appendConverted(std::string& out, const Conversion& conversion, const T& value) {
    char digits[352];  // the longest double without a precision has 309 digits, a point and 6 more
    if constexpr (std::same_as<T, bool> || std::same_as<T, std::int32_t>) {
        std::snprintf(digits, sizeof digits, "%d", static_cast<int>(value));
        out += digits;
    } else if constexpr (std::same_as<T, std::uint32_t>) {
        std::snprintf(digits, sizeof digits, "%u", value);
        out += digits;
    } else if constexpr (std::same_as<T, std::int64_t>) {
        std::snprintf(digits, sizeof digits, "%lld", static_cast<long long>(value));
        out += digits;
    } else if constexpr (std::same_as<T, std::uint64_t>) {
        std::snprintf(digits, sizeof digits, conversion.kind == Kind::hex64 ? "%llx" : "%llu",
                      static_cast<unsigned long long>(value));
        out += digits;
    } else if constexpr (std::same_as<T, double>) {
        std::snprintf(digits, sizeof digits, "%.*f", conversion.precision < 0 ? 6 : conversion.precision, value);
        out += digits;
    } else if constexpr (std::same_as<T, ObjectId>) {
        std::snprintf(digits, sizeof digits, "0x%llx", static_cast<unsigned long long>(value.value));
        out += digits;
    } else {
        const std::size_t start = out.size();
        appendTextForm(out, value);
        // A precision cuts at bytes, as printf does: a character may be cut in two.
        const auto limit = static_cast<std::size_t>(conversion.precision);
        if (conversion.precision >= 0 && out.size() - start > limit) out.resize(start + limit);
    }
}

// Copies literal text up to the next conversion, "%%" as one percent sign; returns where the conversion begins.
inline std::size_t appendLiteral(std::string& out, std::string_view format, std::size_t at) {
    while (at < format.size()) {
        if (format[at] != '%') {
            out += format[at++];
        } else if (format.substr(at).starts_with("%%")) {
            out += '%';
            at += 2;
        } else {
            break;
        }
    }
    return at;
}

}  // namespace text_format

// True when `format` holds exactly one known conversion for each argument, in order and of its type.
template <class... Args>
constexpr bool formatFits(std::string_view format) {
    constexpr std::size_t count = sizeof...(Args);
    using Check = bool (*)(text_format::Kind);
    constexpr Check checks[count + 1] = {text_format::fits<Args>..., nullptr};
    std::size_t used = 0;
    for (std::size_t at = 0; at < format.size();) {
        if (format[at] != '%') {
            ++at;
        } else if (format.substr(at).starts_with("%%")) {
            at += 2;
        } else {
            const text_format::Conversion conversion = text_format::readConversion(format.substr(at));
            if (conversion.length == 0 || used == count || !checks[used](conversion.kind)) return false;
            ++used;
            at += conversion.length;
        }
    }
    return used == count;
}

// A format text checked against its arguments when it is compiled: one that does not fit does not compile.
//
//   %@  any object: text, optional (nothing is "(null)"), ErrorCode (its strerror text), WallTime (a date in UTC),
//       JsonObject (one-line JSON)
//   %s  text, at most the precision's bytes of it        %p  ObjectId
//   %d %i int32 or bool   %u uint32   %lld int64   %llu %llx uint64   %zu size_t   %f double, with an optional
//   precision
template <class... Args>
class FormatString {
public:
    consteval FormatString(const char* text) : text_(text) {
        if (!formatFits<Args...>(text)) throw "the format does not fit its arguments";
    }
    constexpr std::string_view text() const { return text_; }

private:
    std::string_view text_;
};

template <class T>
using FormatArgument = std::decay_t<T>;

template <class... Args>
std::string formatText(std::type_identity_t<FormatString<FormatArgument<Args>...>> format, const Args&... args) {
    const std::string_view text = format.text();
    std::string out;
    out.reserve(text.size() + 16 * sizeof...(args));
    std::size_t at = text_format::appendLiteral(out, text, 0);
    [[maybe_unused]] const auto append = [&](const auto& value) {
        const text_format::Conversion conversion = text_format::readConversion(text.substr(at));
        text_format::appendConverted(out, conversion, value);
        at = text_format::appendLiteral(out, text, at + conversion.length);
    };
    (append(args), ...);
    return out;
}

inline void text_format::appendJson(std::string& out, const JsonValue& value) {
    const auto append = [&out](const auto& content) {
        using Content = std::decay_t<decltype(content)>;
        if constexpr (std::same_as<Content, std::nullptr_t>) {
            out += "null";
        } else if constexpr (std::same_as<Content, bool>) {
            out += content ? "true" : "false";
        } else if constexpr (std::same_as<Content, std::string>) {
            text_format::appendQuoted(out, content);
        } else if constexpr (std::same_as<Content, double>) {
            char digits[32];
            std::snprintf(digits, sizeof digits, "%.17g", content);
            out += digits;
        } else if constexpr (std::same_as<Content, JsonArray>) {
            out += '[';
            for (std::size_t i = 0; i < content.size(); ++i) {
                if (i) out += ',';
                appendJson(out, content[i]);
            }
            out += ']';
        } else if constexpr (std::same_as<Content, JsonObject>) {
            appendTextForm(out, content);
        } else {
            out += std::to_string(content);
        }
    };
    std::visit(append, value.content());
}

inline void appendTextForm(std::string& out, const JsonObject& object) {
    out += '{';
    bool first = true;
    for (const auto& [key, value] : object.members()) {
        if (!first) out += ',';
        first = false;
        text_format::appendQuoted(out, key);
        out += ':';
        text_format::appendJson(out, value);
    }
    out += '}';
}

}  // namespace quorvix
