#include "swivex/Utf8.h"

#include <cstddef>
#include <cstdint>

namespace quorvix::swivex {

namespace {

// The length of the valid sequence that begins the text; 0: none does.
std::size_t sequenceLength(std::string_view text) {
    const auto byte = [&](std::size_t index) { return static_cast<std::uint8_t>(text[index]); };
    const std::uint8_t first = byte(0);
    if (first < 0x80) return 1;
    const std::size_t length = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
    if (first < 0xc2 || first > 0xf4 || text.size() < length) return 0;
    for (std::size_t index = 1; index < length; ++index) {
        if ((byte(index) & 0xc0) != 0x80) return 0;
    }
    // Longer than needed, half of a pair, past the last character.
    if (first == 0xe0 && byte(1) < 0xa0) return 0;
    if (first == 0xed && byte(1) > 0x9f) return 0;
    if (first == 0xf0 && byte(1) < 0x90) return 0;
    if (first == 0xf4 && byte(1) > 0x8f) return 0;
    return length;
}

}  // namespace

std::string validUtf8(std::string_view text) {
    std::string valid;
    valid.reserve(text.size());
    while (!text.empty()) {
        const std::size_t length = sequenceLength(text);
        if (length == 0) {
            valid += "\xef\xbf\xbd";
            text.remove_prefix(1);
        } else {
            valid += text.substr(0, length);
            text.remove_prefix(length);
        }
    }
    return valid;
}

}  // namespace quorvix::swivex
