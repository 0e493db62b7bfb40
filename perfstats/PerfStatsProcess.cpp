#include "perfstats/PerfStatsProcess.h"

namespace quorvix {

std::uint64_t stringHash(std::string_view text) {
    std::uint64_t hash = 14695981039346656037u;
    for (const char byte : text) {
        hash ^= static_cast<unsigned char>(byte);
        hash *= 1099511628211u;
    }
    return hash;
}

std::string asciiText(std::string_view text) {
    std::string ascii(text);
    for (char& byte : ascii) {
        if (static_cast<unsigned char>(byte) > 0x7f) byte = '?';
    }
    return ascii;
}

std::uint64_t PerfStatsProcess::generateUniqueIDForPID(std::int32_t pid, std::string_view processName) {
    return static_cast<std::uint64_t>(std::int64_t{pid}) | stringHash(processName) << 32;
}

PerfStatsProcess::PerfStatsProcess(std::int32_t pid, std::string name)
    : pid_(pid), processName_(std::move(name)), uniqueIdentifier_(generateUniqueIDForPID(pid_, processName_)) {}

}  // namespace quorvix
