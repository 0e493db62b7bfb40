#include "ctl/Pruning.h"

#include <algorithm>
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
    std::vector<const StoredReport*> others;
    std::uint64_t bytes = 0;
    for (const StoredReport& report : reports) {
        bytes += report.bytes;
        const bool isKept = keptOwners.size() < limits.keptOwners && keptOwners.insert(report.owner).second;
        if (!isKept) others.push_back(&report);
    }
    std::vector<std::string> pruned;
    for (auto oldest = others.rbegin(); oldest != others.rend(); ++oldest) {
        if (now - (*oldest)->written <= limits.age && bytes <= limits.bytes) break;
        bytes -= (*oldest)->bytes;
        pruned.push_back((*oldest)->fileName);
    }
    return pruned;
}

}  // namespace quorvix::ctl
