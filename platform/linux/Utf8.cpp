#include "platform/linux/Utf8.h"

#include <cstdint>

namespace quorvix::linuxos {

namespace {

struct Lead {
    std::size_t length;
    // The second byte's range is what rules out overlong forms, surrogates and what lies above U+10FFFF.
    std::uint8_t secondMinimum;
    std::uint8_t secondMaximum;
};

Lead readLead(std::uint8_t byte) {
    if (byte < 0x80) return {1, 0, 0};
    if (byte >= 0xC2 && byte <= 0xDF) return {2, 0x80, 0xBF};
    if (byte == 0xE0) return {3, 0xA0, 0xBF};
    if (byte == 0xED) return {3, 0x80, 0x9F};
    if (byte >= 0xE1 && byte <= 0xEF) return {3, 0x80, 0xBF};
    if (byte == 0xF0) return {4, 0x90, 0xBF};
    if (byte >= 0xF1 && byte <= 0xF3) return {4, 0x80, 0xBF};
    if (byte == 0xF4) return {4, 0x80, 0x8F};
    return {0, 0, 0};
}

}  // namespace

std::size_t utf8CharacterLength(std::string_view text) {
    if (text.empty()) return 0;
    const auto byteAt = [&](std::size_t index) { return static_cast<std::uint8_t>(text[index]); };
    const Lead lead = readLead(byteAt(0));
    if (lead.length <= 1) return lead.length;
    if (text.size() < lead.length || byteAt(1) < lead.secondMinimum || byteAt(1) > lead.secondMaximum) return 0;
    for (std::size_t index = 2; index < lead.length; ++index) {
        if ((byteAt(index) & 0xC0) != 0x80) return 0;
    }
    return lead.length;
}

bool isUtf8(std::string_view text) {
    while (!text.empty()) {
        const std::size_t length = utf8CharacterLength(text);
        if (length == 0) return false;
        text.remove_prefix(length);
    }
    return true;
}

std::string withReplacementCharacters(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    while (!text.empty()) {
        const std::size_t length = utf8CharacterLength(text);
        if (length == 0) {
            out += "\xEF\xBF\xBD";
            text.remove_prefix(1);
        } else {
            out += text.substr(0, length);
            text.remove_prefix(length);
        }
    }
    return out;
}

}  // namespace quorvix::linuxos
