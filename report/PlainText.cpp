#include "report/PlainText.h"

#include <array>
#include <cstdio>
#include <ctime>

namespace quorvix::report {

namespace {

// Length of the UTF-8 sequence at the front, and its character; 0 where there is none.
std::size_t sequenceAt(std::string_view text, std::uint32_t& character) {
    const auto byte = [&](std::size_t at) { return static_cast<std::uint32_t>(static_cast<unsigned char>(text[at])); };
    const std::uint32_t first = byte(0);
    if (first < 0x80) {
        character = first;
        return 1;
    }
    const std::size_t length = first >= 0xf0 && first < 0xf5   ? 4
                               : first >= 0xe0 && first < 0xf0 ? 3
                               : first >= 0xc2 && first < 0xe0 ? 2
                                                               : 0;
    if (length == 0 || text.size() < length) return 0;
    character = first & (0xffU >> (length + 1));
    for (std::size_t at = 1; at < length; ++at) {
        if ((byte(at) & 0xc0) != 0x80) return 0;
        character = character << 6 | (byte(at) & 0x3f);
    }
    constexpr std::array<std::uint32_t, 5> kLeast = {0, 0, 0x80, 0x800, 0x10000};
    const bool isSurrogate = character >= 0xd800 && character < 0xe000;
    return character < kLeast[length] || character > 0x10ffff || isSurrogate ? 0 : length;
}

bool isHarmful(std::uint32_t character) {
    return character < 0x20 || (character >= 0x7f && character < 0xa0) ||
           // Marks and overrides of the direction, separators that some terminals break lines at, invisible ones.
           (character >= 0x200b && character <= 0x200f) || (character >= 0x2028 && character <= 0x202e) ||
           (character >= 0x2066 && character <= 0x2069) || character == 0x61c || character == 0xfeff;
}

template <class... Arguments>
std::string formatted(const char* format, Arguments... arguments) {
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), format, arguments...);
    return text.data();
}

}  // namespace

std::string escaped(std::string_view text) {
    std::string shown;
    shown.reserve(text.size());
    while (!text.empty()) {
        std::uint32_t character = 0;
        const std::size_t length = sequenceAt(text, character);
        if (length == 0) {
            shown += formatted("\\x%02x", static_cast<unsigned>(static_cast<unsigned char>(text[0])));
        } else if (character == '\\') {
            shown += "\\\\";
        } else if (isHarmful(character)) {
            shown += formatted(character < 0x80 ? "\\x%02x" : "\\u%04x", static_cast<unsigned>(character));
        } else {
            shown += text.substr(0, length);
        }
        text.remove_prefix(length == 0 ? 1 : length);
    }
    return shown;
}

std::string asUtf8(std::string_view text) {
    std::string valid;
    valid.reserve(text.size());
    while (!text.empty()) {
        std::uint32_t character = 0;
        const std::size_t length = sequenceAt(text, character);
        valid += length == 0 ? std::string_view("\xef\xbf\xbd") : text.substr(0, length);
        text.remove_prefix(length == 0 ? 1 : length);
    }
    return valid;
}

std::string durationText(std::uint64_t nanoseconds) {
    const auto value = static_cast<double>(nanoseconds);
    if (nanoseconds >= 1'000'000'000) return formatted("%.3f s", value / 1e9);
    if (nanoseconds >= 1'000'000) return formatted("%.1f ms", value / 1e6);
    return formatted("%.0f us", value / 1e3);
}

std::string percentText(double share) { return formatted("%.1f %%", share * 100); }

std::string localTimeText(std::int64_t realtimeNs) {
    const std::time_t seconds = realtimeNs / 1'000'000'000;
    std::tm parts{};
    std::array<char, 64> text{};
    // A year that has no number in an int is one of a damaged file.
    if (localtime_r(&seconds, &parts) == nullptr ||
        std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &parts) == 0) {
        return "time unknown";
    }
    return text.data();
}

}  // namespace quorvix::report
