#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace quorvix::ctl {

// One entry of the daemon's log, from wherever it was kept. The texts hold what apps chose, as it was.
struct LogLine {
    std::string time;      // UTC; empty: not kept
    std::string level;     // "default", "info", "debug"
    std::string category;  // empty: the system's given texts
    std::string message;
    std::string event;   // the message id; empty: no event
    std::string reason;  // of an event that has reasons
    std::string daemon;  // the daemon's pid; empty: not kept
};

// Of a line of "journalctl -o json". Nothing: it is no such line, or an entry without a text.
std::optional<LogLine> logLineOfJournal(std::string_view json);
// Of a line that the daemon wrote on standard error where there is no journal, whatever was put before it. Nothing: it
// is not the daemon's.
std::optional<LogLine> logLineOfText(std::string_view text);

}  // namespace quorvix::ctl
