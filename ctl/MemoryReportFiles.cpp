#include "ctl/MemoryReportFiles.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string_view>
#include <system_error>
#include <utility>

namespace quorvix::ctl {

namespace {

constexpr std::string_view kPrefix = "memory-snapshot-";
constexpr std::string_view kSuffix = ".ips";

}  // namespace

Result<std::vector<std::string>> memoryReportNames(const std::string& folder) {
    std::error_code error;
    std::vector<std::string> names;
    for (std::filesystem::directory_iterator entry(folder, error), end; !error && entry != end;
         entry.increment(error)) {
        std::string name = entry->path().filename();
        if (name.starts_with(kPrefix) && name.ends_with(kSuffix)) names.push_back(std::move(name));
    }
    if (error) return ErrorCode{error.value()};
    // Their names hold the time, so that their order is that of time.
    std::ranges::sort(names);
    return names;
}

Result<MemoryReport> readMemoryReport(const std::string& path) {
    std::error_code error;
    const auto size = std::filesystem::file_size(path, error);
    if (error) return ErrorCode{error.value()};
    std::ifstream stream(path, std::ios::binary);
    if (!stream) return ErrorCode{errno == 0 ? EIO : errno};
    if (size > kLongestMemoryReport) return ErrorCode{EBADMSG};
    std::string text(size, '\0');
    stream.read(text.data(), static_cast<std::streamsize>(size));
    text.resize(static_cast<std::size_t>(stream.gcount()));
    std::optional<MemoryReport> report = parseMemoryReport(text);
    if (!report) return ErrorCode{EBADMSG};
    return std::move(*report);
}

}  // namespace quorvix::ctl
