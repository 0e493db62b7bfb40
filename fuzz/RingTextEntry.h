#pragma once

#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "swivex/RingText.h"

// What must hold for any bytes taken as a line of a ring's text form: no text of the event is longer than the line, and
// its time is a whole microsecond. True when it is an event's.
inline bool ringTextHolds(std::string_view line) {
    using namespace quorvix::swivex;
    TextEvent parsed;
    if (!parseRingLine(line, parsed)) return false;
    const Event& event = parsed.view();
    bool holds = event.timeNs % 1000 == 0 && event.name.size() + event.text.size() <= line.size() &&
                 event.prevComm.size() + event.nextComm.size() <= line.size();
    for (const EventField& field : event.allFields()) holds = holds && field.text.size() <= line.size();
    if (!holds) {
        std::fprintf(stderr, "ring text: an event that is not in the line\n");
        std::abort();
    }
    return true;
}
