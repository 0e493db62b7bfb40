#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "platform/linux/PropertyListFile.h"

// What must hold for any bytes taken as a property list: whatever can be read can be written, and what was written
// reads back as the same list. True when the bytes were a list.
inline bool propertyListRoundTripHolds(std::string_view bytes) {
    using namespace quorvix;
    const auto require = [](bool holds, const char* what) {
        if (holds) return;
        std::fprintf(stderr, "property list: %s\n", what);
        std::abort();
    };
    const Result<PropertyListValue> value = linuxos::parsePropertyList(bytes);
    if (!value) return false;
    const Result<std::string> text = linuxos::writePropertyList(*value);
    if (!text) {
        // White space is what our own indentation can add, so that a list of nearly the greatest length gets too long.
        require(text.error().value == EFBIG, "was read but cannot be written");
        return true;
    }
    const Result<PropertyListValue> again = linuxos::parsePropertyList(*text);
    require(static_cast<bool>(again), "what was written cannot be read");
    // As texts, because nan is not equal to itself.
    const Result<std::string> textAgain = linuxos::writePropertyList(*again);
    require(textAgain && *textAgain == *text, "reads back as another list");
    return true;
}
