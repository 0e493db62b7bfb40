#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quorvix::swivex {

// A field of an event as the kernel's `format` file tells of it.
struct FieldFormat {
    enum class Kind : std::uint8_t {
        number,
        text,      // characters in place
        location,  // a 32-bit word: offset and length of characters elsewhere in the record
        relative,  // the same, the offset counted from behind the word
        rest,      // characters from here to the record's end
        skipped,   // an array of numbers, an address: of no use in a file that outlives its processes
    };
    std::string name;
    Kind kind = Kind::number;
    std::uint32_t offset = 0;
    std::uint32_t size = 0;
    bool isSigned = false;
};

struct EventFormat {
    std::string name;
    std::uint32_t id = 0;
    std::vector<FieldFormat> fields;  // the common ones included

    const FieldFormat* field(std::string_view name) const;
};

// Nothing when the text has no name, no id, or a field that lies past any record.
std::optional<EventFormat> parseEventFormat(std::string_view text);

// Where a ring page keeps what, from events/header_page.
struct PageFormat {
    std::uint32_t commitOffset = 0;
    std::uint32_t commitSize = 0;
    std::uint32_t dataOffset = 0;
};
std::optional<PageFormat> parsePageFormat(std::string_view text);

}  // namespace quorvix::swivex
