#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "swivex/Event.h"

namespace quorvix::swivex {

// An event with texts of its own, for who keeps it longer than the line that it came from.
struct TextEvent {
    Event event;  // its texts are the strings below; see view()
    std::string name;
    std::string prevComm;
    std::string nextComm;
    std::string text;

    // The event with its texts set; as long as this object stays where it is.
    const Event& view();
};

// Takes one line of a ring's text form apart:
//
//	          <idle>-0       [001] d..2.  1966.240035: sched_switch: prev_comm=swapper/1 ... ==> next_comm=sh ...
//
// Times are whole microseconds there. Names may hold anything, so fields are looked for from the back. False: it is no
// event's line. Events that it does not know in detail keep their text.
bool parseRingLine(std::string_view line, TextEvent& event);

}  // namespace quorvix::swivex
