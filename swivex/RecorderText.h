#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// What the tracing file system says of a recorder, and procfs of a process's arguments, as texts.
namespace quorvix::swivex {

// Of a choice such as "local global [mono] boot", what stands in the brackets; empty: nothing does.
std::string_view chosenOf(std::string_view text);

// The size of a ring is text such as "8192", or "7 (expanded: 1408)" before its first use.
std::uint64_t leadingNumber(const std::string& text);

// Of a CPU's "stats", lines of "KEY: NUMBER": the number of a key, or 0.
std::uint64_t countOf(std::string_view stats, std::string_view key);

// When the oldest event of a CPU's ring was, by its "stats"; 0: it does not say.
double oldestSecondsOf(const std::string& stats);

// The arguments in a process's "cmdline", each ended by a NUL. None where all are empty: a process may have overwritten
// its own, and is known by its name then.
std::vector<std::string> argumentsOf(std::string_view bytes);

}  // namespace quorvix::swivex
