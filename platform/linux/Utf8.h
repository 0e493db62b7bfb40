#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace quorvix::linuxos {

// Length in bytes of the well-formed UTF-8 character at the start of `text`; 0 where there is none. Overlong forms,
// surrogates and code points above U+10FFFF are not well-formed.
std::size_t utf8CharacterLength(std::string_view text);

bool isUtf8(std::string_view text);

// The text with U+FFFD for every byte that belongs to no well-formed character.
std::string withReplacementCharacters(std::string_view text);

}  // namespace quorvix::linuxos
