#include "ctl/Pruning.h"

#include <algorithm>
#include <iterator>
#include <numeric>
#include <set>
#include <tuple>

namespace quorvix::ctl {

std::vector<std::string> reportsToPrune(std::vector<StoredReport> reports, const PruneLimits& limits,
                                        std::chrono::system_clock::time_point now) {
    // The names decide between reports of one moment, so that a second run decides alike.
    std::ranges::sort(reports, [](const StoredReport& left, const StoredReport& right) {
        return std::tie(left.written, left.fileName) > std::tie(right.written, right.fileName);
    });
    std::set<std::string> keptOwners;
    const auto others = std::ranges::stable_partition(reports, [&](const StoredReport& report) {
        return keptOwners.size() < limits.keptOwners && keptOwners.insert(report.owner).second;
    });

    std::uint64_t bytes =
        std::accumulate(reports.begin(), reports.end(), std::uint64_t{0},
                        [](std::uint64_t sum, const StoredReport& report) { return sum + report.bytes; });
    std::vector<std::string> pruned;
    for (auto end = others.end(); end != others.begin(); --end) {
        const auto oldest = std::prev(end);
        if (now - oldest->written <= limits.age && bytes <= limits.bytes) break;
        bytes -= oldest->bytes;
        pruned.push_back(oldest->fileName);
    }
    return pruned;
}

}  // namespace quorvix::ctl
