#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/Result.h"
#include "report/HangReport.h"
#include "report/PacketFile.h"

namespace quorvix::ctl {

// Names of the hang reports in a folder, in no order.
Result<std::vector<std::string>> hangReportNames(const std::string& folder);
// A report is named by a path, or by its name in the spool folder.
std::string hangReportPath(const std::string& file, const std::string& folder);
// Why a report's file could not be opened, in words.
std::string whyNotRead(ErrorCode error);
// Why a file that could be opened is none.
std::string whyNoHangReport(const report::HangReport& read);

inline report::ScanFile scanOf(const report::PacketFile& file) {
    return [&file](const report::PacketFile::Visitor& visit) { return file.scan(visit); };
}

}  // namespace quorvix::ctl
