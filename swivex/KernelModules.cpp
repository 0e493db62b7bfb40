#include "swivex/KernelModules.h"

#include <algorithm>
#include <array>
#include <charconv>

namespace quorvix::swivex {

KernelModules::KernelModules(std::string_view text) {
    while (!text.empty()) {
        std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(line.size() + 1, text.size()));
        // "fuse 212992 3 - Live 0xffffffffc0a00000"
        std::array<std::string_view, 6> words;
        for (std::string_view& word : words) {
            word = line.substr(0, line.find(' '));
            line.remove_prefix(std::min(word.size() + 1, line.size()));
        }
        if (!words[5].starts_with("0x")) continue;
        words[5].remove_prefix(2);
        Module module{.start = 0, .size = 0, .name = std::string(words[0])};
        std::from_chars(words[1].data(), words[1].data() + words[1].size(), module.size);
        std::from_chars(words[5].data(), words[5].data() + words[5].size(), module.start, 16);
        if (module.start != 0) modules_.push_back(std::move(module));
    }
    std::ranges::sort(modules_, {}, &Module::start);
}

std::optional<KernelModules::Place> KernelModules::find(std::uint64_t address) const {
    const auto after = std::ranges::upper_bound(modules_, address, {}, &Module::start);
    if (after == modules_.begin()) return std::nullopt;
    const Module& module = *std::prev(after);
    if (address - module.start >= module.size) return std::nullopt;
    return Place{module.name, address - module.start};
}

}  // namespace quorvix::swivex
