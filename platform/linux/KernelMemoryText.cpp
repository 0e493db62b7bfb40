#include "platform/linux/KernelMemoryText.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>
#include <map>
#include <optional>
#include <utility>

namespace quorvix::linuxos {

namespace {

constexpr std::string_view kBlanks = " \t";

// Each line without its line feed.
template <class Use>
void eachLine(std::string_view text, const Use& use) {
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        use(text.substr(0, end));
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
}

// The next word, empty at the end.
std::string_view takeWord(std::string_view& text) {
    const std::size_t begin = text.find_first_not_of(kBlanks);
    if (begin == std::string_view::npos) {
        text = {};
        return {};
    }
    text.remove_prefix(begin);
    const std::size_t end = std::min(text.find_first_of(kBlanks), text.size());
    const std::string_view word = text.substr(0, end);
    text.remove_prefix(end);
    return word;
}

std::optional<std::uint64_t> numberOf(std::string_view word, int base = 10) {
    std::uint64_t value = 0;
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), value, base);
    if (error != std::errc() || end != word.data() + word.size()) return std::nullopt;
    return value;
}

// Figures from the kernel are far from these bounds; those of a damaged text must not wrap to a small size.
std::uint64_t product(std::uint64_t a, std::uint64_t b) {
    if (a != 0 && b > std::numeric_limits<std::uint64_t>::max() / a) return std::numeric_limits<std::uint64_t>::max();
    return a * b;
}
std::uint64_t sum(std::uint64_t a, std::uint64_t b) {
    return b > std::numeric_limits<std::uint64_t>::max() - a ? std::numeric_limits<std::uint64_t>::max() : a + b;
}

// Takes the last word off; a cache's name may hold blanks, and its figures stand behind it.
std::optional<std::uint64_t> takeLastNumber(std::string_view& text) {
    const std::size_t last = text.find_last_not_of(kBlanks);
    if (last == std::string_view::npos) return std::nullopt;
    text = text.substr(0, last + 1);
    const std::size_t blank = text.find_last_of(kBlanks);
    if (blank == std::string_view::npos) return std::nullopt;
    const auto value = numberOf(text.substr(blank + 1));
    text = text.substr(0, blank);
    return value;
}

// "symbol+0x12/0x34 [module]", or a bare address.
VmallocCaller callerOf(std::string_view word, std::string_view rest) {
    VmallocCaller caller;
    if (word.starts_with("0x")) {
        caller.address = numberOf(word.substr(2), 16).value_or(0);
        return caller;
    }
    caller.symbol = word.substr(0, word.find("+0x"));
    const std::string_view next = takeWord(rest);
    if (next.size() > 2 && next.starts_with('[') && next.ends_with(']')) {
        caller.module = next.substr(1, next.size() - 2);
    }
    return caller;
}

// Compilers append ".isra.0" and the like to a function they made anew.
std::string_view withoutSuffix(std::string_view symbol) { return symbol.substr(0, symbol.find('.')); }

}  // namespace

std::vector<KernelZone> parseSlabInfo(std::string_view text, std::uint64_t pageBytes) {
    std::vector<KernelZone> zones;
    eachLine(text, [&](std::string_view line) {
        const std::size_t tunables = line.rfind(" : tunables ");
        const std::size_t slabs = line.rfind(" : slabdata ");
        if (line.starts_with('#') || tunables == std::string_view::npos || slabs == std::string_view::npos ||
            slabs < tunables) {
            return;
        }
        std::string_view head = line.substr(0, tunables);
        const auto pagesPerSlab = takeLastNumber(head);
        // Objects a slab, their size, all and those in use: what the objects take is not what the slabs take.
        for (int unused = 0; unused < 4; ++unused) {
            if (!takeLastNumber(head)) return;
        }
        std::string_view tail = line.substr(slabs + std::string_view(" : slabdata ").size());
        takeWord(tail);  // slabs in use
        const auto slabCount = numberOf(takeWord(tail));
        const std::size_t end = head.find_last_not_of(kBlanks);
        if (!pagesPerSlab || !slabCount || end == std::string_view::npos) return;
        zones.push_back({std::string(head.substr(0, end + 1)), product(product(*slabCount, *pagesPerSlab), pageBytes)});
    });
    return zones;
}

std::vector<VmallocCaller> parseVmallocInfo(std::string_view text, std::uint64_t pageBytes) {
    using Key = std::pair<std::pair<std::string_view, std::string_view>, std::uint64_t>;
    std::map<Key, std::uint64_t> sizes;
    eachLine(text, [&](std::string_view line) {
        if (!line.starts_with("0x")) return;
        takeWord(line);  // addresses
        takeWord(line);  // size with the guard page
        const std::string_view word = takeWord(line);
        if (word.empty() || word.find('=') != std::string_view::npos) return;
        const VmallocCaller caller = callerOf(word, line);
        if (caller.symbol.empty() && caller.address == 0) return;
        for (std::string_view next = takeWord(line); !next.empty(); next = takeWord(line)) {
            if (!next.starts_with("pages=")) continue;
            const auto pages = numberOf(next.substr(std::string_view("pages=").size()));
            if (!pages) return;
            std::uint64_t& size = sizes[{{caller.symbol, caller.module}, caller.address}];
            size = sum(size, product(*pages, pageBytes));
            return;
        }
    });
    std::vector<VmallocCaller> callers;
    for (const auto& [key, size] : sizes) {
        callers.push_back(
            {.symbol = key.first.first, .module = key.first.second, .address = key.second, .sizeBytes = size});
    }
    return callers;
}

bool allocatesKernelStacks(std::string_view symbol) {
    constexpr std::array<std::string_view, 8> kFunctions = {
        "kernel_clone",  "_do_fork",        "fork_idle", "copy_process", "dup_task_struct", "alloc_thread_stack_node",
        "kernel_thread", "create_io_thread"};
    return std::ranges::find(kFunctions, withoutSuffix(symbol)) != kFunctions.end();
}

bool allocatesModules(std::string_view symbol) {
    constexpr std::array<std::string_view, 6> kFunctions = {"module_alloc",        "load_module",   "move_module",
                                                            "layout_and_allocate", "execmem_alloc", "execmem_vmalloc"};
    return std::ranges::find(kFunctions, withoutSuffix(symbol)) != kFunctions.end();
}

std::vector<KernelModule> parseModules(std::string_view text) {
    std::vector<KernelModule> modules;
    eachLine(text, [&](std::string_view line) {
        const std::string_view name = takeWord(line);
        const auto size = numberOf(takeWord(line));
        if (!name.empty() && size) modules.push_back({name, *size});
    });
    return modules;
}

}  // namespace quorvix::linuxos
