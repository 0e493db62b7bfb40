#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace quorvix::swivex {

// What the caller's reason text tells: which process and thread hung. The text comes from a daemon that puts names of
// its clients into it, so any bytes are taken.
struct Reason {
    std::string text;     // valid UTF-8, as it goes into the file
    std::string problem;  // why it tells nothing; empty when it does
    std::int32_t pid = 0;
    std::int64_t threadID = 0;  // possibly as the process itself sees it
};

Reason parseReason(std::optional<std::string_view> text);

}  // namespace quorvix::swivex
