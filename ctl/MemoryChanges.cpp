#include "ctl/MemoryChanges.h"

#include <algorithm>
#include <functional>
#include <utility>

namespace quorvix::ctl {

std::vector<MemoryChange> memoryChanges(const std::map<std::string, MemoryTotals::Total>& before,
                                        const std::map<std::string, MemoryTotals::Total>& after) {
    std::map<std::string, MemoryChange> changes;
    for (const auto& [name, total] : before) {
        changes[name].before = static_cast<std::int64_t>(total.bytes);
        changes[name].countBefore = total.count;
    }
    for (const auto& [name, total] : after) {
        changes[name].after = static_cast<std::int64_t>(total.bytes);
        changes[name].countAfter = total.count;
    }
    std::vector<MemoryChange> sorted;
    for (auto& [name, change] : changes) {
        change.name = name;
        if (change.growth() != 0 || change.countBefore != change.countAfter) sorted.push_back(std::move(change));
    }
    std::ranges::stable_sort(sorted, std::ranges::greater(), &MemoryChange::growth);
    return sorted;
}

}  // namespace quorvix::ctl
