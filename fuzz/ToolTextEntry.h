#pragma once

#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "ctl/BudgetReport.h"
#include "ctl/LogLines.h"
#include "ctl/LogStory.h"
#include "ctl/Printable.h"
#include "ctl/StateReport.h"

namespace quorvix::fuzz {

namespace tool_text {

inline void require(bool holds, const char* what) {
    if (holds) return;
    std::fprintf(stderr, "tool text: %s\n", what);
    std::abort();
}

inline bool isPlain(std::string_view text) {
    for (const char byte : text) {
        if ((static_cast<unsigned char>(byte) < 0x20 && byte != '\n') || byte == 0x7f) return false;
    }
    return true;
}

inline bool shown(const std::optional<ctl::LogLine>& line) {
    if (!line) return false;
    require(!line->message.empty() && !line->level.empty(), "a line without a text or a level");
    require(isPlain(ctl::printable(line->message)) && isPlain(ctl::printable(line->time)),
            "a control character on its way out");
    const auto story = ctl::storyOf("main", {*line, *line});
    require(story.size() <= 2, "more lines in an app's story than in the log");
    return true;
}

inline bool state(std::string_view text) {
    const auto document = nlohmann::ordered_json::parse(text, nullptr, false);
    if (!document.is_object()) return false;
    require(isPlain(ctl::stateReport(document)) && isPlain(ctl::budgetReport(document)), "a control character");
    for (const char byte : ctl::jsonText(document)) {
        require(static_cast<unsigned char>(byte) < 0x80 && (byte >= 0x20 || byte == '\n'), "JSON that is not ASCII");
    }
    return true;
}

}  // namespace tool_text

// What quorvixctl reads and shows: entries of the journal, lines of standard error, the daemon's state. The first byte
// names the reader, the rest is its text; nothing that is shown holds a control character. True when it was read.
inline bool toolTextHolds(std::string_view bytes) {
    if (bytes.empty()) return false;
    const std::string_view text = bytes.substr(1);
    switch (bytes.front()) {
        case 'j': return tool_text::shown(ctl::logLineOfJournal(text));
        case 't': return tool_text::shown(ctl::logLineOfText(text));
        case 's': return tool_text::state(text);
        default: return false;
    }
}

}  // namespace quorvix::fuzz
