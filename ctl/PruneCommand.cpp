#include "ctl/PruneCommand.h"

#include <dirent.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <nlohmann/json.hpp>
#include <ostream>
#include <string_view>
#include <vector>

#include "ctl/PreferenceText.h"
#include "platform/linux/Descriptor.h"

namespace quorvix::ctl {

namespace {

using Json = nlohmann::ordered_json;
using linuxos::Descriptor;

// A report is searched so far for the record of its reason.
constexpr std::size_t kSearchedBytes = std::size_t{4} << 20;
constexpr std::string_view kPathKey = "\"ProcessPath\":";

struct CloseFolder {
    void operator()(DIR* folder) const { ::closedir(folder); }
};
using Folder = std::unique_ptr<DIR, CloseFolder>;

std::string beginningOf(int folder, const char* fileName) {
    const Descriptor file(::openat(folder, fileName, O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
    if (!file) return "";
    std::string bytes(kSearchedBytes, '\0');
    std::size_t length = 0;
    while (length < bytes.size()) {
        const ssize_t count = ::read(file.get(), bytes.data() + length, bytes.size() - length);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) break;
        length += static_cast<std::size_t>(count);
    }
    bytes.resize(length);
    return bytes;
}

// The JSON string that begins at the front, quotes included; empty where there is none.
std::string_view stringAt(std::string_view text) {
    if (!text.starts_with('"')) return {};
    for (std::size_t index = 1; index < text.size(); ++index) {
        if (text[index] == '\\') {
            ++index;
        } else if (text[index] == '"') {
            return text.substr(0, index + 1);
        }
    }
    return {};
}

// Whose a hang report is: the app's program, as the record of the reason in it says. What else an app may choose stands
// in that record as a string, where no quote is without its backslash. A report without a record is its name's, without
// the date.
std::string ownerOf(int folder, const std::string& fileName) {
    const std::string bytes = beginningOf(folder, fileName.c_str());
    std::string_view text = bytes;
    if (const std::size_t key = text.find(kPathKey); key != std::string_view::npos) {
        text.remove_prefix(key + kPathKey.size());
        text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
        if (const std::string_view path = stringAt(text); !path.empty()) return std::string(path);
    }
    constexpr std::size_t kDateAndEnding = std::string_view("-2026-01-31-120000.swivex").size();
    return fileName.size() > kDateAndEnding ? fileName.substr(0, fileName.size() - kDateAndEnding) : fileName;
}

std::chrono::system_clock::time_point momentOf(const timespec& time) {
    const auto since = std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
    return std::chrono::system_clock::time_point(
        std::chrono::duration_cast<std::chrono::system_clock::duration>(since));
}

}  // namespace

ExitStatus PruneCommand::hangReports(const PruneRequest& request) const {
    return prune(services_.spoolFolder, "*.swivex", Owners::apps, request);
}

ExitStatus PruneCommand::memorySnapshots(const PruneRequest& request) const {
    return prune(services_.reportFolder, "memory-snapshot-*.ips", Owners::one, request);
}

ExitStatus PruneCommand::prune(const std::string& folderName, const char* pattern, Owners owners,
                               const PruneRequest& request) const {
    Json removed = Json::array();
    const auto say = [&](std::size_t kept) {
        if (request.asJson) {
            services_.out << Json{{"removed", removed}, {"kept", kept}, {"dry_run", request.dryRun}}.dump(
                                 2, ' ', false, Json::error_handler_t::replace)
                          << '\n';
            return;
        }
        for (const Json& name : removed) services_.out << printable(name.get<std::string>()) << '\n';
        services_.out << removed.size() << (request.dryRun ? " would be removed, " : " removed, ") << kept << " kept\n";
    };

    const Folder folder(::opendir(folderName.c_str()));
    if (!folder) {
        if (errno == ENOENT) return say(0), ExitStatus::done;
        services_.error << "quorvixctl: " << folderName << " can't be read: " << ErrorCode{errno}.text() << "\n";
        return ExitStatus::failed;
    }
    const int descriptor = ::dirfd(folder.get());
    std::vector<StoredReport> reports;
    while (const dirent* entry = ::readdir(folder.get())) {
        struct stat status {};
        if (::fnmatch(pattern, entry->d_name, 0) != 0) continue;
        if (::fstatat(descriptor, entry->d_name, &status, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(status.st_mode)) {
            continue;
        }
        reports.push_back({.fileName = entry->d_name,
                           .owner = owners == Owners::apps ? ownerOf(descriptor, entry->d_name) : "",
                           .written = momentOf(status.st_mtim),
                           // What it takes on the disk, not what it seems to be long.
                           .bytes = static_cast<std::uint64_t>(status.st_blocks) * 512});
    }
    const std::size_t found = reports.size();
    ExitStatus result = ExitStatus::done;
    for (const std::string& name :
         reportsToPrune(std::move(reports), request.limits, std::chrono::system_clock::now())) {
        // One that has gone meanwhile has gone.
        if (!request.dryRun && ::unlinkat(descriptor, name.c_str(), 0) != 0 && errno != ENOENT) {
            services_.error << "quorvixctl: " << printable(folderName + "/" + name)
                            << " can't be removed: " << ErrorCode{errno}.text() << "\n";
            result = ExitStatus::failed;
            continue;
        }
        removed.push_back(name);
    }
    say(found - removed.size());
    return result;
}

}  // namespace quorvix::ctl
