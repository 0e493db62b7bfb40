#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace quorvix {

// The fixed string hash (FNV-1a, 64 bits, of the bytes): stored identifiers hold it, so it never changes.
std::uint64_t stringHash(std::string_view text);

// Text in 7-bit ASCII: every other byte becomes '?', so that a name can still be told apart.
std::string asciiText(std::string_view text);

// The identity under which a process is reported to the power log. Immutable.
class PerfStatsProcess {
public:
    static PerfStatsProcess processWithPID(std::int32_t pid, std::string_view name) {
        return PerfStatsProcess(pid, asciiText(name));
    }
    // The pid in the low half, the name's hash in the high one. The hash's upper half falls off, and a negative pid
    // sets the whole upper half, both unguarded on purpose.
    static std::uint64_t generateUniqueIDForPID(std::int32_t pid, std::string_view processName);

    PerfStatsProcess(std::int32_t pid, std::string name);

    std::int32_t pid() const { return pid_; }
    const std::string& processName() const { return processName_; }
    std::uint64_t uniqueIdentifier() const { return uniqueIdentifier_; }

private:
    std::int32_t pid_;
    std::string processName_;
    std::uint64_t uniqueIdentifier_;
};

}  // namespace quorvix
