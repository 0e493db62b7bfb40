#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <variant>

#include "platform/linux/LogLevels.h"
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
    // A list of log levels is one too: no rule but of words that stand there, and what has no rule is told.
    if (const auto* list = std::get_if<PropertyListDictionary>(&value->content())) {
        const linuxos::LogLevelList levels = linuxos::logLevelsOf(*list);
        std::size_t words = 0;
        std::size_t understood = 0;
        bool otherThings = false;
        for (const auto& [subsystem, content] : *list) {
            const auto* categories = std::get_if<PropertyListDictionary>(&content.content());
            words += categories ? categories->size() : 0;
            otherThings = otherThings || !categories;
        }
        for (const auto& [subsystem, categories] : levels.rules) understood += categories.size();
        require(understood <= words, "more log levels than words");
        require(levels.toTell.empty() == (understood == words && !otherThings),
                "a log level is passed over in silence");
    }
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
