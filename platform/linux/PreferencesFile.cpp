#include "platform/linux/PreferencesFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "platform/linux/Descriptor.h"
#include "platform/linux/FileName.h"
#include "platform/linux/Folders.h"
#include "platform/linux/PropertyListFile.h"
#include "platform/linux/PropertyListReader.h"

namespace quorvix::linuxos {

namespace {

constexpr long kLockWaitNs = 5'000'000'000;
constexpr long kLockLongestPauseNs = 16'000'000;
// So many damaged lists are kept; the last one's name is used again and again.
constexpr int kDamagedListsKept = 9;

// The longest name that we make of a domain: ".<domain>.plist.tmp", "<domain>.plist.damaged-9".
constexpr std::string_view kLongestEnding = ".plist.damaged-9";

// Takes the lock or gives up: a stopped writer must not stop the daemon with it.
Result<void> lock(int descriptor) {
    long waitedNs = 0;
    for (long pauseNs = 1'000'000;; pauseNs = std::min(2 * pauseNs, kLockLongestPauseNs)) {
        if (::flock(descriptor, LOCK_EX | LOCK_NB) == 0) return {};
        if (errno != EWOULDBLOCK && errno != EINTR) return ErrorCode{errno};
        if (waitedNs >= kLockWaitNs) return ErrorCode{ETIMEDOUT};
        const timespec pause{0, pauseNs};
        ::nanosleep(&pause, nullptr);
        waitedNs += pauseNs;
    }
}

Result<void> writeAll(int descriptor, std::string_view text) {
    while (!text.empty()) {
        const ssize_t count = ::write(descriptor, text.data(), text.size());
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return ErrorCode{errno};
        text.remove_prefix(static_cast<std::size_t>(count));
    }
    return {};
}

// The new list under its temporary name, complete and on disk. It gets the mode and the owner of the list that it
// replaces.
Result<void> writeTemporary(int folder, const std::string& name, const std::string& replaces, std::string_view text) {
    // Left by a writer that was killed; the lock tells us that it is nobody's now.
    ::unlinkat(folder, name.c_str(), 0);
    const Descriptor file(::openat(folder, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!file) return ErrorCode{errno};
    mode_t mode = 0644;
    struct stat old {};
    if (::fstatat(folder, replaces.c_str(), &old, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(old.st_mode)) {
        mode = old.st_mode & 0777;
        // Fails for a writer who is not root, and the list is then simply the writer's.
        if (::fchown(file.get(), old.st_uid, old.st_gid) != 0) mode = 0644;
    }
    if (::fchmod(file.get(), mode) != 0) return ErrorCode{errno};
    if (Result<void> written = writeAll(file.get(), text); !written) return written;
    if (::fsync(file.get()) != 0) return ErrorCode{errno};
    return {};
}

Result<std::string> moveAside(int folder, const std::string& name) {
    for (int number = 1;; ++number) {
        const std::string aside = name + ".damaged-" + std::to_string(number);
        const bool last = number == kDamagedListsKept;
        if (::renameat2(folder, name.c_str(), folder, aside.c_str(), last ? 0 : RENAME_NOREPLACE) == 0) return aside;
        if (errno != EEXIST || last) return ErrorCode{errno};
    }
}

// Puts the new list in the place of the old one. Precondition: the lock is held.
Result<PreferencesEditOutcome> replace(int folder, const std::string& name, const std::string& text, bool damaged) {
    const std::string temporary = "." + name + ".tmp";
    const auto failed = [&](ErrorCode error) {
        ::unlinkat(folder, temporary.c_str(), 0);
        return error;
    };
    if (const Result<void> written = writeTemporary(folder, temporary, name, text); !written) {
        return failed(written.error());
    }
    PreferencesEditOutcome outcome;
    if (damaged) {
        const Result<std::string> aside = moveAside(folder, name);
        if (!aside) return failed(aside.error());
        outcome.movedAsideAs = *aside;
    }
    if (::renameat(folder, temporary.c_str(), folder, name.c_str()) != 0) return failed(ErrorCode{errno});
    // Not undone when it fails: the list is in place, and whole, whatever the disk makes of it.
    ::fsync(folder);
    return outcome;
}

}  // namespace

int preferencesDomainError(std::string_view domain) {
    // Names that begin with a dot are those of our lock and temporary files.
    if (domain.starts_with('.')) return ENOENT;
    const int error = fileNameError(domain);
    if (error != 0) return error;
    return domain.size() + kLongestEnding.size() > kMaximumFileNameLength ? ENAMETOOLONG : 0;
}

Result<PreferencesEditOutcome> editPreferencesFile(const PreferencesPlace& place,
                                                   const std::function<void(PropertyListDictionary&)>& edit) {
    if (const int error = preferencesDomainError(place.domain); error != 0) return ErrorCode{error};
    if (const Result<void> made = makeFolders(place.folder, 0755); !made) return made.error();
    const Descriptor folder(::open(place.folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder) return ErrorCode{errno};
    // Readable by its owner only, or anyone could hold the lock and keep the writers out.
    const std::string lockName = "." + place.domain + ".lock";
    const Descriptor lockFile(
        ::openat(folder.get(), lockName.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600));
    if (!lockFile) return ErrorCode{errno};
    if (const Result<void> locked = lock(lockFile.get()); !locked) return locked.error();

    Result<PropertyListOnDisk> onDisk = readPropertyListFile(place.path());
    const bool damaged = !onDisk && isDamagedList(onDisk.error());
    // A list that is there and can't be read now may be readable later: it is not overwritten.
    if (!onDisk && !damaged && onDisk.error().value != ENOENT) return onDisk.error();
    const PropertyListDictionary before = onDisk ? std::move(onDisk->dictionary) : PropertyListDictionary{};
    PropertyListDictionary after = before;
    edit(after);
    if (onDisk && after == before) return PreferencesEditOutcome{};
    const Result<std::string> text = writePropertyList(after);
    if (!text) return text.error();
    return replace(folder.get(), place.domain + ".plist", *text, damaged);
}

}  // namespace quorvix::linuxos
