#include "swivex/ProcessText.h"

#include <array>
#include <charconv>

namespace quorvix::swivex {

namespace {

// Takes the next word off the text.
std::string_view word(std::string_view& text) {
    const std::size_t begin = std::min(text.find_first_not_of(" \t\n"), text.size());
    text.remove_prefix(begin);
    const std::string_view found = text.substr(0, text.find_first_of(" \t\n"));
    text.remove_prefix(found.size());
    return found;
}

std::uint64_t numberIn(std::string_view text) {
    std::uint64_t value = 0;
    std::from_chars(text.data(), text.data() + text.size(), value);
    return value;
}

}  // namespace

std::optional<StatLine> parseStat(std::string_view text) {
    // A name may hold brackets and spaces; nothing after it does.
    const std::size_t open = text.find('(');
    const std::size_t close = text.rfind(')');
    if (open == std::string_view::npos || close == std::string_view::npos || close < open) return std::nullopt;
    StatLine line;
    line.comm = text.substr(open + 1, close - open - 1);
    text.remove_prefix(close + 1);
    std::array<std::string_view, 20> words;  // field 3 of the file is the first
    for (std::string_view& w : words) w = word(text);
    if (words.back().empty()) return std::nullopt;
    line.state = words[0].front();
    line.ppid = static_cast<std::int32_t>(numberIn(words[1]));
    line.flags = numberIn(words[6]);
    line.userTicks = numberIn(words[11]);
    line.kernelTicks = numberIn(words[12]);
    line.threads = numberIn(words[17]);
    line.startTicks = numberIn(words[19]);
    return line;
}

std::optional<std::int32_t> scoreAdjustmentOf(std::string_view text) {
    std::int32_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() ? std::optional(number) : std::nullopt;
}

std::vector<std::uint64_t> numbersOf(std::string_view text, std::string_view key) {
    std::vector<std::uint64_t> numbers;
    while (!text.empty()) {
        const std::size_t length = std::min(text.find('\n'), text.size());
        std::string_view line = text.substr(0, length);
        text.remove_prefix(std::min(length + 1, text.size()));
        if (!line.starts_with(key) || !line.substr(key.size()).starts_with(':')) continue;
        line.remove_prefix(key.size() + 1);
        for (std::string_view w = word(line); !w.empty() && w.front() >= '0' && w.front() <= '9'; w = word(line)) {
            numbers.push_back(numberIn(w));
        }
        break;
    }
    return numbers;
}

}  // namespace quorvix::swivex
