#include "simulate/CommandLine.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <string_view>

namespace quorvix::simulate {

namespace {

constexpr const char* kHelp =
    "quorvix_simulate [--seed N] [--days D] [--clients C] [--minutes M] [--without KIND,...] [--only ACTION,...]\n"
    "                 [--log] [--no-shrink] [--canary NAME]\n";

bool parseNumber(std::string_view text, std::uint64_t& number) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size();
}

template <class Take>
bool eachOf(std::string_view text, Take take) {
    while (!text.empty()) {
        const std::size_t comma = std::min(text.find(','), text.size());
        if (!take(text.substr(0, comma))) return false;
        text.remove_prefix(std::min(comma + 1, text.size()));
    }
    return true;
}

bool parseOption(CommandLine& line, std::string_view name, std::string_view value) {
    Options& options = line.options;
    std::uint64_t number = 0;
    if (name == "--without") {
        return eachOf(value, [&](std::string_view kind) {
            const auto known = kindNamed(kind);
            if (known) options.without.insert(*known);
            return known.has_value();
        });
    }
    if (name == "--only") {
        options.only.emplace();
        const bool parsed = eachOf(value, [&](std::string_view index) {
            options.only->push_back(0);
            return parseNumber(index, options.only->back());
        });
        std::ranges::sort(*options.only);
        return parsed;
    }
    if (name == "--canary") {
        line.canary = value;
        return true;
    }
    if (!parseNumber(value, number)) return false;
    if (name == "--seed") return options.seed = number, true;
    if (name == "--days") return options.days = number, true;
    if (name == "--clients") return options.clients = number, number > 0;
    if (name == "--minutes") return options.minutes = number, true;
    return false;
}

}  // namespace

std::optional<CommandLine> parseCommandLine(int count, const char* const* arguments) {
    CommandLine line;
    for (int i = 1; i < count; ++i) {
        const std::string_view name = arguments[i];
        if (name == "--log") {
            line.showLog = true;
        } else if (name == "--no-shrink") {
            line.shrinks = false;
        } else if (i + 1 >= count || !parseOption(line, name, arguments[i + 1])) {
            std::fprintf(stderr, "not understood: %s\n%s", arguments[i], kHelp);
            return std::nullopt;
        } else {
            ++i;
        }
    }
    return line;
}

}  // namespace quorvix::simulate
