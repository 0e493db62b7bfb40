#pragma once

#include <string>
#include <vector>

#include "ctl/MemoryReport.h"
#include "platform/Result.h"

namespace quorvix::ctl {

inline constexpr std::size_t kLongestMemoryReport = std::size_t{64} << 20;

// Names of the memory snapshot reports in a folder, the oldest first.
Result<std::vector<std::string>> memoryReportNames(const std::string& folder);
// EBADMSG: it is no complete report, or a longer one than there can be.
Result<MemoryReport> readMemoryReport(const std::string& path);

}  // namespace quorvix::ctl
