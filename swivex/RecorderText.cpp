#include "swivex/RecorderText.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>

namespace quorvix::swivex {

std::string_view chosenOf(std::string_view text) {
    const std::size_t begin = text.find('[');
    const std::size_t end = text.find(']', begin);
    return begin == text.npos || end == text.npos ? "" : text.substr(begin + 1, end - begin - 1);
}

std::uint64_t leadingNumber(const std::string& text) { return std::strtoull(text.c_str(), nullptr, 10); }

std::uint64_t countOf(std::string_view stats, std::string_view key) {
    while (!stats.empty()) {
        const std::string_view line = stats.substr(0, stats.find('\n'));
        stats.remove_prefix(std::min(line.size() + 1, stats.size()));
        if (!line.starts_with(key) || !line.substr(key.size()).starts_with(": ")) continue;
        std::uint64_t value = 0;
        std::from_chars(line.data() + key.size() + 2, line.data() + line.size(), value);
        return value;
    }
    return 0;
}

double oldestSecondsOf(const std::string& stats) {
    constexpr std::string_view kOldest = "oldest event ts:";
    const std::size_t at = stats.find(kOldest);
    return at == std::string::npos ? 0 : std::strtod(stats.c_str() + at + kOldest.size(), nullptr);
}

std::vector<std::string> argumentsOf(std::string_view bytes) {
    std::vector<std::string> arguments;
    while (!bytes.empty()) {
        const std::string_view argument = bytes.substr(0, bytes.find('\0'));
        bytes.remove_prefix(std::min(argument.size() + 1, bytes.size()));
        arguments.emplace_back(argument);
    }
    if (std::ranges::all_of(arguments, [](const std::string& argument) { return argument.empty(); })) arguments.clear();
    return arguments;
}

}  // namespace quorvix::swivex
