#include "swivex/stacks/ThreadText.h"

#include <algorithm>
#include <charconv>
#include <string>

#include "swivex/stacks/bpf/ThreadRecords.h"

namespace quorvix::swivex::stacks {

bool parseThreadStat(std::string_view text, ThreadStack& thread) {
    // "1234 (name) S ...": the name may hold anything, so it ends at the last parenthesis.
    const std::size_t open = text.find('(');
    const std::size_t close = text.rfind(')');
    if (open == std::string_view::npos || close == std::string_view::npos || close < open || text.size() < close + 3) {
        return false;
    }
    thread.name = text.substr(open + 1, close - open - 1);
    thread.state = text[close + 2];
    return true;
}

std::vector<KernelFrame> parseKernelStack(std::string_view text) {
    // Lines of "[<0>] name+0x12/0x34".
    std::vector<KernelFrame> frames;
    while (!text.empty() && frames.size() < SWIVEX_KERNEL_FRAMES) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        const std::string_view line = text.substr(0, end);
        text.remove_prefix(std::min(end + 1, text.size()));
        const std::size_t name = line.find("] ");
        if (name != std::string_view::npos) frames.push_back({0, std::string(line.substr(name + 2))});
    }
    return frames;
}

std::size_t threadCountOf(std::string_view status) {
    constexpr std::string_view kLabel = "\nThreads:\t";
    const std::size_t at = status.find(kLabel);
    std::size_t count = 0;
    if (at == std::string_view::npos) return 0;
    status.remove_prefix(at + kLabel.size());
    std::from_chars(status.data(), status.data() + status.size(), count);
    return count;
}

}  // namespace quorvix::swivex::stacks
