#include "ctl/ReportPageCommand.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <ostream>
#include <system_error>
#include <vector>

#include "ctl/HangReportFiles.h"
#include "ctl/PageData.h"
#include "ctl/Printable.h"
#include "ctl/Progress.h"
#include "report/PlainText.h"
#include "report/Symboliser.h"
#include "report/viewer/HangData.h"
#include "report/viewer/Page.h"

namespace quorvix::ctl {

namespace {

using Json = nlohmann::ordered_json;
using report::escaped;

constexpr std::string_view kStandardOutput = "-";

// One report of the page: what the list shows of it and, where it is told in full, all the rest.
struct Entry {
    std::string path;
    std::int64_t whenNs = 0;
    bool isRead = false;
    Json json;
};

class Reader {
public:
    explicit Reader(bool symbols) {
        if (!symbols) return;
        nameFrames_ = [this](const report::TraceContents& contents, std::vector<report::ToldFrame>& stack) {
            symboliser_.name(contents, stack);
        };
    }

    void read(Entry& entry, bool inFull) {
        entry.json = {{"file", escaped(std::filesystem::path(entry.path).filename().string())}};
        const auto file = report::PacketFile::open(entry.path);
        if (!file) {
            entry.json["problem"] = whyNotRead(file.error());
            return;
        }
        const report::AnalysisDepth depth =
            inFull ? report::kViewerDepth : report::AnalysisDepth{.waits = 0, .blockers = 0, .users = 0};
        const report::HangReport read =
            report::analyse(scanOf(*file), depth, inFull ? nameFrames_ : report::NameFrames());
        const bool isTimeKnown = read.isHangReport && read.beganRealtimeNs;
        if (isTimeKnown) entry.whenNs = *read.beganRealtimeNs;
        entry.json["when"] = report::localTimeText(entry.whenNs);
        entry.json["bytes"] = file->sizeBytes();
        if (!isTimeKnown) entry.json["when_is_of_file"] = true;
        if (!read.isHangReport) {
            entry.json["problem"] = escaped(whyNoHangReport(read));
            return;
        }
        entry.isRead = true;
        entry.json["app"] = escaped(read.app());
        entry.json["duration_ns"] = read.window.length();
        entry.json["cause"] = report::nameOf(read.verdict.cause);
        entry.json["complete"] = read.incomplete.empty();
        if (inFull) entry.json["detail"] = report::hangData(read);
    }

private:
    report::Symboliser symboliser_;
    report::NameFrames nameFrames_;
};

std::int64_t modifiedNs(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? status.st_mtim.tv_sec * std::nano::den : 0;
}

// Where the page goes when nobody says so: beside nothing of the device, under the name of what it shows.
std::string nameAfter(const std::string& from) {
    std::string name = std::filesystem::path(from).lexically_normal().stem().string();
    if (name.empty() || name == "." || name == "..") {
        std::error_code ignored;
        name = std::filesystem::canonical(from, ignored).filename().string();
    }
    return (name.empty() ? "hangs" : name) + ".html";
}

// All of it or nothing: written under another name beside it, and renamed.
Result<void> writeWhole(const std::string& path, std::string_view content) {
    struct stat status {};
    // A device or a pipe must not be replaced by a file.
    if (lstat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode) && !S_ISLNK(status.st_mode)) {
        return ErrorCode{S_ISDIR(status.st_mode) ? EISDIR : EINVAL};
    }
    std::string temporary = path + ".XXXXXX";
    const int descriptor = mkostemp(temporary.data(), O_CLOEXEC);
    if (descriptor < 0) return ErrorCode{errno};
    int error = 0;
    while (!content.empty() && error == 0) {
        const ssize_t written = ::write(descriptor, content.data(), content.size());
        if (written >= 0) {
            content.remove_prefix(static_cast<std::size_t>(written));
        } else if (errno != EINTR) {
            error = errno;
        }
    }
    if (close(descriptor) != 0 && error == 0) error = errno;
    if (error == 0 && rename(temporary.c_str(), path.c_str()) != 0) error = errno;
    if (error == 0) return {};
    unlink(temporary.c_str());
    return ErrorCode{error};
}

Json pageData(const ReportPageRequest& request, bool isFolder, const std::vector<Entry>& entries) {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    tzset();
    Json hangs = Json::array();
    for (const Entry& entry : entries) hangs.push_back(entry.json);
    return {{"version", 1},
            {"tool", "quorvixctl " QUORVIX_VERSION},
            {"made", report::localTimeText(std::chrono::nanoseconds(now).count())},
            {"zone", escaped(tzname[0])},
            {"source", escaped(request.from)},
            {"folder", isFolder},
            {"hangs", std::move(hangs)},
            {"launches", launchData(request.powerLog)},
            {"memory", memoryData(request.memoryFolder)}};
}

}  // namespace

ExitStatus ReportPageCommand::write(const ReportPageRequest& request) const {
    const bool toStandardOutput = request.output == kStandardOutput;
    if (toStandardOutput && request.asJson) {
        services_.error << "quorvixctl: the page and JSON can't both go to standard output\n";
        return ExitStatus::usage;
    }
    std::error_code ignored;
    const bool isFolder = std::filesystem::is_directory(request.from, ignored);
    std::vector<Entry> entries;
    if (isFolder) {
        const auto names = hangReportNames(request.from);
        if (!names || names->empty()) {
            services_.error << "quorvixctl: "
                            << (names ? "there is no hang report in " + escaped(request.from)
                                      : escaped(request.from) + " could not be read: " + names.error().text())
                            << '\n';
            return ExitStatus::failed;
        }
        for (const std::string& name : *names) {
            const std::string path = request.from + "/" + name;
            entries.push_back({.path = path, .whenNs = modifiedNs(path), .isRead = false, .json = {}});
        }
        // Which ones are the newest is to be known before they are read.
        std::ranges::sort(entries, [](const Entry& one, const Entry& other) {
            return one.whenNs != other.whenNs ? one.whenNs > other.whenNs : one.path < other.path;
        });
    } else {
        const std::string path = hangReportPath(request.from, request.spoolFolder);
        entries.push_back({.path = path, .whenNs = modifiedNs(path), .isRead = false, .json = {}});
    }

    std::string page;
    {
        const Progress progress(services_, isFolder ? "Reading " + std::to_string(entries.size()) + " hang reports"
                                                    : "Reading a hang report");
        Reader reader(request.symbols);
        for (std::size_t at = 0; at < entries.size(); ++at) reader.read(entries[at], !isFolder || at < request.limit);
        std::ranges::stable_sort(entries, std::ranges::greater(), &Entry::whenNs);
        if (isFolder || entries.front().isRead) page = report::viewerPage(pageData(request, isFolder, entries));
    }
    if (page.empty()) {
        services_.error << "quorvixctl: " << escaped(entries.front().path) << ": "
                        << entries.front().json.at("problem").get<std::string>() << '\n';
        return ExitStatus::failed;
    }
    if (toStandardOutput) {
        services_.out << page;
        return ExitStatus::done;
    }
    const std::string path = request.output.empty() ? nameAfter(request.from) : request.output;
    const Result<void> written = writeWhole(path, page);
    if (!written) {
        services_.error << "quorvixctl: the page " << escaped(path)
                        << " could not be written: " << written.error().text() << '\n';
        return ExitStatus::failed;
    }
    const auto read = static_cast<std::size_t>(std::ranges::count_if(entries, &Entry::isRead));
    if (request.asJson) {
        services_.out << jsonText({{"page", report::asUtf8(path)},
                                   {"bytes", page.size()},
                                   {"reports", read},
                                   {"not_read", entries.size() - read}});
    } else {
        services_.out << escaped(path) << ": " << read << (read == 1 ? " hang report, " : " hang reports, ")
                      << (page.size() + 1023) / 1024 << " KiB\n";
    }
    return ExitStatus::done;
}

}  // namespace quorvix::ctl
