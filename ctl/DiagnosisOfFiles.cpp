// The looks at what quorvixd keeps on disk: folders, stores, preferences, exported counters.

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <optional>
#include <system_error>

#include "ctl/Diagnosis.h"
#include "ctl/PreferenceOrigin.h"
#include "ctl/PreferenceText.h"
#include "platform/Result.h"
#include "platform/linux/PowerLogDatabase.h"
#include "platform/linux/PowerLogSchema.h"
#include "platform/linux/PropertyListReader.h"
#include "platform/linux/Sqlite.h"

namespace quorvix::ctl {

namespace {

using Kind = Finding::Kind;

constexpr const char* kReports = "/var/root/Library/Caches/quorvixd";
constexpr std::uint64_t kLittleSpace = std::uint64_t{64} << 20;

// As chmod takes it.
std::string octal(mode_t mode) {
    std::string digits;
    for (int shift = 9; shift >= 0; shift -= 3) digits += static_cast<char>('0' + ((mode >> shift) & 7));
    return digits;
}

struct Folder {
    const char* path;
    // What may be done in it at most: that others can't read reports hangs on their parents.
    mode_t mostMode;
};

constexpr Folder kFolders[] = {
    {"/run/vex", 0755},
    {"/run/vex/notify", 0755},
    {"/var/lib/quorvix", 0700},
    {"/var/root/Library/Caches", 0700},
    {"/var/root/Library/Caches/quorvixd", 0755},
    {"/var/root/Library/Caches/quorvixd/tmp", 0755},
    {"/var/root/Library/Caches/quorvixd/spool", 0755},
    {"/Library/Logs/Faultbox", 0700},
};

std::string howToMake(const Folder& folder) {
    return "systemd-tmpfiles --create quorvixd.conf (without systemd: install -d -m " + octal(folder.mostMode) + " " +
           folder.path + ")";
}

std::optional<Finding> examineFolder(const std::string& root, const Folder& folder) {
    struct stat status {};
    const std::string path = folder.path;
    if (stat((root + path).c_str(), &status) != 0) {
        if (errno == ENOENT) return Finding{Kind::problem, "folders", path + " is missing", howToMake(folder)};
        return Finding{Kind::problem, "folders", path + ": " + ErrorCode{errno}.text(), "run this as root"};
    }
    if (!S_ISDIR(status.st_mode)) {
        return Finding{Kind::problem, "folders", path + " is no folder", "move it away; then " + howToMake(folder)};
    }
    if (status.st_uid != 0) {
        return Finding{Kind::problem, "folders",
                       path + " belongs to user " + std::to_string(status.st_uid) + ", who can change what is in it",
                       "chown root:root " + path};
    }
    const mode_t mode = status.st_mode & 07777;
    if ((mode & 0777 & ~folder.mostMode) != 0) {
        return Finding{Kind::problem, "folders",
                       path + " has mode " + octal(mode) + ": other users may do more than they should",
                       "chmod " + octal(folder.mostMode) + " " + path};
    }
    return std::nullopt;
}

std::optional<Finding> examineSpace(const std::string& path) {
    struct statvfs space {};
    if (statvfs(path.c_str(), &space) != 0) return std::nullopt;
    const std::uint64_t free = std::uint64_t{space.f_bavail} * space.f_frsize;
    if (free >= kLittleSpace) return std::nullopt;
    return Finding{Kind::problem, "folders",
                   "only " + std::to_string(free >> 20) + " MiB are free where reports are written: they may not fit",
                   "remove old reports from " + std::string(kReports) + "/spool, or make room on that file system"};
}

constexpr const char* kState = "/var/lib/quorvix";

struct Store {
    const char* path;
    std::int64_t version;
    // Files moved aside of a kind, past which the next is not stored at all. 0: the next takes the place of the last.
    std::size_t mostAside;
};

constexpr Store kStores[] = {
    {"/var/lib/quorvix/tallisk.db", 1, 0},
    {"/var/lib/quorvix/wattrel.db", linuxos::kPowerLogSchemaVersion, linuxos::PowerLogDatabase::kMaximumMovedAside}};

// Throws what a failed read, or a database that is not whole, is.
Finding examineDatabase(const std::string& file, const Store& store) {
    linuxos::SqliteDatabase database(file, linuxos::SqliteDatabase::kBusyTimeout, linuxos::SqliteAccess::readOnly);
    if (database.number("PRAGMA user_version") > store.version) {
        return {Kind::notice, "stores", std::string(store.path) + " was written by a later quorvixd",
                "upgrade quorvixd: this one moves the store aside and begins a new one"};
    }
    database.requireWhole();
    return {Kind::good, "stores", std::string(store.path) + " is whole", ""};
}

Finding examineStore(const std::string& root, const Store& store) {
    const std::string path = store.path;
    struct stat status {};
    if (stat((root + path).c_str(), &status) != 0) {
        if (errno == ENOENT) return {Kind::good, "stores", path + " is not there yet: nothing was stored", ""};
        return {Kind::problem, "stores", path + ": " + ErrorCode{errno}.text(), "run this as root"};
    }
    if (!S_ISREG(status.st_mode)) {
        return {Kind::problem, "stores", path + " is no plain file", "move it away: quorvixd begins a new one"};
    }
    if (status.st_uid != 0 || (status.st_mode & 0077) != 0) {
        return {Kind::problem, "stores",
                path + " has mode " + octal(status.st_mode & 07777) + " and belongs to user " +
                    std::to_string(status.st_uid) + ": others can read it",
                "chown root:root " + path + " && chmod 0600 " + path};
    }
    // Asked as quorvixd asks, so that nothing is called damaged here that it goes on with.
    for (int number = 1;; ++number) {
        try {
            return examineDatabase(root + path, store);
        } catch (const linuxos::SqliteError& error) {
            const auto answer = linuxos::answerTo(error, number, root + path);
            if (answer == linuxos::SqliteAnswer::tryAgain) continue;
            const bool damaged = answer == linuxos::SqliteAnswer::moveAside;
            return {Kind::problem, "stores",
                    path + (damaged ? " is damaged: " : " cannot be read: ") + printable(error.what()),
                    damaged ? "systemctl restart quorvixd, which moves it aside and begins a new one"
                            : "ask again, and look into the kernel's log for errors of the disk"};
        }
    }
}

// The databases that quorvixd moved aside as damaged, or as a later version's. Their journals are left out.
std::vector<std::string> movedAside(const std::string& root, const std::string& beginning) {
    std::vector<std::string> paths;
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator(root + kState, ignored)) {
        const std::string path = std::string(kState) + "/" + entry.path().filename().string();
        if (path.starts_with(beginning) && !path.ends_with("-wal") && !path.ends_with("-shm")) paths.push_back(path);
    }
    std::ranges::sort(paths);
    return paths;
}

void examineAside(const std::string& root, const Store& store, Findings& found) {
    for (const char* suffix : {".damaged", ".newer"}) {
        const std::vector<std::string> paths = movedAside(root, std::string(store.path) + suffix);
        for (const std::string& path : paths) {
            found.push_back({Kind::notice, "stores", printable(path) + " was moved aside once",
                             "look into it with sqlite3, or remove it"});
        }
        if (store.mostAside != 0 && paths.size() >= store.mostAside) {
            found.push_back({Kind::problem, "stores",
                             std::to_string(paths.size()) + " files " + store.path + suffix +
                                 "-N were moved aside: there is no place for the next, and nothing would be stored",
                             "remove some of them"});
        }
    }
}

// One of the three things that quorvixd is for.
struct Source {
    std::string_view key;
    std::string_view name;
};
constexpr Source kSources[] = {{"QuorvixEnabled", "hang tracing"},
                               {"QuorvixEnableMemoryLogging", "memory snapshots"},
                               {"QuorvixEnableAppActivationLogging", "app activation logging"}};

}  // namespace

Findings examineFolders(const ToolServices& services) {
    Findings found;
    for (const Folder& folder : kFolders) {
        if (const auto finding = examineFolder(services.root, folder)) found.push_back(*finding);
    }
    if (const auto space = examineSpace(services.root + kReports)) found.push_back(*space);
    if (found.empty()) found.push_back({Kind::good, "folders", "all are there, root's own, and closed to others", ""});
    return found;
}

Findings examineStores(const ToolServices& services) {
    Findings found;
    for (const Store& store : kStores) {
        found.push_back(examineStore(services.root, store));
        examineAside(services.root, store, found);
    }
    return found;
}

Findings examinePreferences(const ToolServices& services) {
    Findings found;
    PropertyListDictionary profile;
    if (auto list = linuxos::readPropertyListFile(services.profilePath)) {
        profile = std::move(list->dictionary);
    } else if (list.error().value != ENOENT && list.error().value != ENOTDIR) {
        found.push_back({Kind::problem, "profile",
                         services.profilePath + " can't be used: " + list.error().text() + "; it is passed over",
                         "install the profile again; plutil or xmllint show where it is broken"});
    }
    std::string on;
    std::string locked;
    bool hangTracingIsLocked = false;
    for (const std::string_view domain : {kDefaultDomain, kActivationDomain}) {
        const auto stored = services.readDomain({.name = domain, .user = "mobile"});
        if (!stored) {
            found.push_back({Kind::problem, "preferences",
                             "the list of " + std::string(domain) + " can't be read: " + stored.error().text() +
                                 "; quorvixd takes it as empty",
                             "quorvixctl prefs set writes a new one and keeps the damaged one beside it"});
        }
        for (const KnownPreference& known : knownPreferences()) {
            if (known.domain != domain) continue;
            const PreferenceOrigin origin = originOf(known, stored ? *stored : PropertyListDictionary{}, profile);
            if (origin.locked && known.key == "QuorvixEnabled") hangTracingIsLocked = true;
            if (origin.locked) locked += (locked.empty() ? "" : ", ") + std::string(known.key);
            for (const Source& source : kSources) {
                if (source.key == known.key && origin.value == "true") {
                    on += (on.empty() ? "" : ", ") + std::string(source.name);
                }
            }
            if (origin.remark.starts_with("passed over")) {
                const bool inProfile = origin.remark.starts_with("passed over in the profile");
                found.push_back({Kind::notice, "preferences", std::string(known.key) + ": " + origin.remark,
                                 inProfile ? "give it a number in the managed profile, or take it out of there"
                                           : "quorvixctl prefs set " + std::string(known.key) + " VALUE"});
            }
        }
    }
    if (on.empty()) {
        found.push_back({Kind::notice, "preferences", "everything is switched off, so quorvixd stays down",
                         hangTracingIsLocked
                             ? "quorvixctl enable memory|activations; of hang tracing the managed profile decides"
                             : "quorvixctl enable hang|memory|activations"});
    } else {
        found.push_back({Kind::good, "preferences", "on: " + on, ""});
    }
    if (!locked.empty()) {
        found.push_back({Kind::good, "profile", "the managed profile decides " + locked, ""});
    }
    return found;
}

Findings examineExport(const ToolServices& services) {
    const std::string folder = "/var/lib/prometheus/node-exporter";
    std::error_code ignored;
    if (!std::filesystem::is_directory(services.root + folder, ignored)) {
        return {{Kind::good, "export", "no node exporter here: counters are not exported", ""}};
    }
    if (std::filesystem::exists(services.root + folder + "/quorvix.prom", ignored)) {
        return {{Kind::good, "export", "counters are exported to " + folder + "/quorvix.prom", ""}};
    }
    return {{Kind::good, "export", "nothing was exported yet: quorvixd writes after the first hang", ""}};
}

}  // namespace quorvix::ctl
