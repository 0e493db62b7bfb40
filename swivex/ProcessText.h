#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quorvix::swivex {

// What a process's or a thread's `stat` file tells.
struct StatLine {
    std::string comm;
    char state = '?';
    std::int32_t ppid = 0;
    std::uint64_t flags = 0;
    std::uint64_t userTicks = 0;  // of USER_HZ
    std::uint64_t kernelTicks = 0;
    std::uint64_t threads = 0;
    std::uint64_t startTicks = 0;  // since boot
    bool isKernelThread() const { return (flags & 0x00200000) != 0; }
};
std::optional<StatLine> parseStat(std::string_view text);

// The number in a process's `oom_score_adj` file.
std::optional<std::int32_t> scoreAdjustmentOf(std::string_view text);

// The numbers of a line "Key:	1 2 3 kB" of a `status` or `meminfo` file; empty when there is none.
std::vector<std::uint64_t> numbersOf(std::string_view text, std::string_view key);

}  // namespace quorvix::swivex
