#include "ctl/Printable.h"

#include <nlohmann/json.hpp>

#include "platform/linux/Utf8.h"

namespace quorvix::ctl {

namespace {

bool isWithin(unsigned value, unsigned first, unsigned last) { return value >= first && value <= last; }

// Whether a terminal may do something else with this well-formed character than show it.
bool isObeyed(std::string_view character) {
    const auto byte = [&](std::size_t index) { return static_cast<unsigned char>(character[index]); };
    if (character.size() == 1) return byte(0) < 0x20 || byte(0) == 0x7f;
    // U+0080..U+009F: some terminals take U+009B for the beginning of a command.
    if (character.size() == 2) return byte(0) == 0xc2 && byte(1) < 0xa0;
    if (character.size() != 3 || byte(0) != 0xe2) return false;
    // U+200E, U+200F, U+2028..U+202E and U+2066..U+2069: directions of writing, line and paragraph ends.
    if (byte(1) == 0x80) return isWithin(byte(2), 0x8e, 0x8f) || isWithin(byte(2), 0xa8, 0xae);
    return byte(1) == 0x81 && isWithin(byte(2), 0xa6, 0xa9);
}

}  // namespace

std::string printable(std::string_view text) {
    const std::string wellFormed = linuxos::withReplacementCharacters(text);
    std::string shown;
    shown.reserve(wellFormed.size());
    for (std::string_view rest = wellFormed; !rest.empty();) {
        const std::string_view character = rest.substr(0, linuxos::utf8CharacterLength(rest));
        if (isObeyed(character)) {
            shown += '?';
        } else {
            shown += character;
        }
        rest.remove_prefix(character.size());
    }
    return shown;
}

std::string jsonText(const nlohmann::ordered_json& document) {
    return document.dump(2, ' ', true, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

}  // namespace quorvix::ctl
