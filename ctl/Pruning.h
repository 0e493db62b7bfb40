#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace quorvix::ctl {

// A report as far as it matters for what is removed.
struct StoredReport {
    std::string fileName;
    // Whose it is; reports that are nobody's share one empty owner.
    std::string owner;
    std::chrono::system_clock::time_point written;
    std::uint64_t bytes = 0;
};

struct PruneLimits {
    // Of at most so many owners the newest report is kept, whatever its age and the size of all.
    std::size_t keptOwners = 256;
    std::chrono::days age{30};
    std::uint64_t bytes = std::uint64_t{512} << 20;
};

// File names of the reports that go, the oldest first. The newest report of each of the owners whose newest reports are
// the newest is kept: an owner that writes many pushes out its own only. Of the others those go that are older than the
// age, and then, oldest first, as many as bring the size of all that is left to the limit.
std::vector<std::string> reportsToPrune(std::vector<StoredReport> reports, const PruneLimits& limits,
                                        std::chrono::system_clock::time_point now);

}  // namespace quorvix::ctl
