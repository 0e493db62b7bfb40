#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "ctl/MemoryReport.h"

namespace quorvix::ctl {

// What became of one name between two reports.
struct MemoryChange {
    std::string name;
    std::int64_t before = 0;
    std::int64_t after = 0;
    std::uint64_t countBefore = 0;
    std::uint64_t countAfter = 0;
    std::int64_t growth() const { return after - before; }
};

// Everything that is in either report and not of the same size, the greatest growth first, names in order.
std::vector<MemoryChange> memoryChanges(const std::map<std::string, MemoryTotals::Total>& before,
                                        const std::map<std::string, MemoryTotals::Total>& after);

}  // namespace quorvix::ctl
