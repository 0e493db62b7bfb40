#include "swivex/stacks/MemoryMap.h"

#include <algorithm>
#include <charconv>
#include <optional>

namespace quorvix::swivex::stacks {

namespace {

constexpr std::string_view kDeleted = " (deleted)";

// Takes a number and the character behind it off the line's front.
template <class Number>
bool take(std::string_view& line, Number& number, int base, char behind) {
    const auto [end, error] = std::from_chars(line.data(), line.data() + line.size(), number, base);
    if (error != std::errc() || end == line.data() + line.size() || *end != behind) return false;
    line.remove_prefix(static_cast<std::size_t>(end - line.data()) + 1);
    return true;
}

// The kernel writes a newline of a path as \012, and nothing else of it differently.
std::string unescaped(std::string_view path) {
    constexpr std::string_view kNewline = "\\012";
    std::string text;
    for (std::size_t at; (at = path.find(kNewline)) != std::string_view::npos;
         path.remove_prefix(at + kNewline.size())) {
        text.append(path.substr(0, at)).push_back('\n');
    }
    text.append(path);
    return text;
}

std::optional<Mapping> parseLine(std::string_view line) {
    Mapping mapping;
    if (!take(line, mapping.start, 16, '-') || !take(line, mapping.end, 16, ' ') || line.size() < 5)
        return std::nullopt;
    mapping.isReadable = line[0] == 'r';
    mapping.isExecutable = line[2] == 'x';
    line.remove_prefix(5);
    if (!take(line, mapping.fileOffset, 16, ' ') || !take(line, mapping.deviceMajor, 16, ':') ||
        !take(line, mapping.deviceMinor, 16, ' ') || !take(line, mapping.inode, 10, ' ')) {
        return std::nullopt;
    }
    if (mapping.isExecutable) {
        line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
        if (line.ends_with(kDeleted)) line.remove_suffix(kDeleted.size());
        mapping.path = unescaped(line);
    }
    if (mapping.start >= mapping.end) return std::nullopt;
    return mapping;
}

}  // namespace

MemoryMap MemoryMap::parse(std::string_view text) {
    MemoryMap map;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        if (std::optional<Mapping> mapping = parseLine(text.substr(0, end)))
            map.mappings_.push_back(std::move(*mapping));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    // The kernel gives them in order; a map that changes while it is read may repeat one.
    std::stable_sort(map.mappings_.begin(), map.mappings_.end(),
                     [](const Mapping& left, const Mapping& right) { return left.start < right.start; });
    return map;
}

const Mapping* MemoryMap::find(std::uint64_t address) const {
    const auto after =
        std::upper_bound(mappings_.begin(), mappings_.end(), address,
                         [](std::uint64_t value, const Mapping& mapping) { return value < mapping.start; });
    if (after == mappings_.begin()) return nullptr;
    const Mapping& mapping = *std::prev(after);
    return address < mapping.end ? &mapping : nullptr;
}

}  // namespace quorvix::swivex::stacks
