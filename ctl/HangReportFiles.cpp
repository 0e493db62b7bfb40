#include "ctl/HangReportFiles.h"

#include <cerrno>
#include <filesystem>
#include <system_error>
#include <utility>

namespace quorvix::ctl {

namespace {

constexpr std::string_view kSuffix = ".swivex";

}  // namespace

Result<std::vector<std::string>> hangReportNames(const std::string& folder) {
    std::error_code error;
    std::vector<std::string> names;
    for (std::filesystem::directory_iterator entry(folder, error), end; !error && entry != end;
         entry.increment(error)) {
        std::string name = entry->path().filename();
        if (name.ends_with(kSuffix)) names.push_back(std::move(name));
    }
    if (error) return ErrorCode{error.value()};
    return names;
}

std::string hangReportPath(const std::string& file, const std::string& folder) {
    std::error_code ignored;
    return file.find('/') != std::string::npos || std::filesystem::exists(file, ignored) ? file : folder + "/" + file;
}

std::string whyNotRead(ErrorCode error) {
    switch (error.value) {
        case EINVAL: return "not a regular file";
        case EFBIG: return "larger than a hang report can be";
        default: return error.text();
    }
}

std::string whyNoHangReport(const report::HangReport& read) {
    return read.incomplete.empty() ? "no hang report" : "no hang report: " + read.incomplete;
}

}  // namespace quorvix::ctl
