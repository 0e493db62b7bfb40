#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace quorvix::linuxos {

// Parsers of procfs texts: from text to values, without a file and without allocating. What is missing or is no number
// reads as absent, or as 0 where the kernel leaves a line out.

inline constexpr std::uint64_t kKilobyte = 1024;
inline constexpr std::uint64_t kKernelThreadFlag = 0x00200000;  // PF_KTHREAD, of a thread's flags
// What the kernel appends to the name of a file that is no longer there.
inline constexpr std::string_view kDeletedMark = " (deleted)";

// /proc/PID/stat and /proc/PID/task/TID/stat.
struct StatText {
    std::string_view comm;  // may hold blanks, brackets and line feeds
    std::uint64_t flags;
    std::uint64_t majorFaults;
    std::uint64_t userTicks;
    std::uint64_t systemTicks;
    std::int32_t nice;
    std::uint64_t threadCount;
    std::uint64_t startUnits;
    std::uint32_t policy;
};
std::optional<StatText> parseStat(std::string_view text);

// The first number of /proc/PID/schedstat: nanoseconds on a processor.
std::optional<std::uint64_t> parseSchedstat(std::string_view text);

// /proc/PID/io.
struct IoText {
    std::uint64_t readBytes = 0;
    std::uint64_t writeBytes = 0;
};
IoText parseIo(std::string_view text);

// The sizes of /proc/PID/status in bytes; all 0 for kernel threads and zombies, which have none.
struct StatusText {
    std::uint64_t locked = 0;
    std::uint64_t pinned = 0;
    std::uint64_t resident = 0;
    std::uint64_t anonymous = 0;
    std::uint64_t swapped = 0;
};
StatusText parseStatus(std::string_view text);

// The number behind "key" at the beginning of a line, blanks and an optional colon between them.
std::optional<std::uint64_t> numberOfLine(std::string_view text, std::string_view key);

}  // namespace quorvix::linuxos
