#include "platform/linux/ProcessAssertions.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <memory>
#include <utility>

#include "platform/linux/Descriptor.h"

namespace quorvix::linuxos {

namespace {

constexpr std::size_t kLongestAssertion = 4096;

// Kinds of inhibitors by the assertion they come nearest to (docs/memory-report.md says why).
struct InhibitorKind {
    std::string_view name;
    std::uint32_t bit;
};
constexpr std::array kInhibitorKinds = {
    InhibitorKind{"shutdown", 12},             // Bg_Finish_Task_Unbounded
    InhibitorKind{"sleep", 3},                 // Bg_Finish_Task
    InhibitorKind{"idle", 16},                 // Foreground
    InhibitorKind{"handle-power-key", 2},      // Accessory, as the following
    InhibitorKind{"handle-reboot-key", 2},     //
    InhibitorKind{"handle-suspend-key", 2},    //
    InhibitorKind{"handle-hibernate-key", 2},  //
    InhibitorKind{"handle-lid-switch", 2},     //
};

template <class T>
bool takeNumber(std::string_view& text, T& value, int base = 10) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    if (error != std::errc()) return false;
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    return true;
}

bool takeText(std::string_view& text, std::string_view what) {
    if (!text.starts_with(what)) return false;
    text.remove_prefix(what.size());
    return true;
}

std::uint64_t maskOfKinds(std::string_view kinds) {
    std::uint64_t mask = 0;
    while (!kinds.empty()) {
        const std::size_t end = kinds.find(':');
        const std::string_view name = kinds.substr(0, end);
        kinds.remove_prefix(end == std::string_view::npos ? kinds.size() : end + 1);
        for (const InhibitorKind& kind : kInhibitorKinds) {
            if (kind.name == name) mask |= std::uint64_t{1} << kind.bit;
        }
    }
    return mask;
}

}  // namespace

std::optional<ProcessAssertion> parseInhibitor(std::string_view text) {
    ProcessAssertion assertion;
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        std::string_view line = text.substr(0, end);
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        if (takeText(line, "WHAT=")) assertion.mask = maskOfKinds(line);
        if (takeText(line, "PID=") && (!takeNumber(line, assertion.pid) || !line.empty())) return std::nullopt;
    }
    if (assertion.pid <= 0 || assertion.mask == 0) return std::nullopt;
    return assertion;
}

std::optional<RegistryEntry> parseRegistryEntry(std::string_view text) {
    RegistryEntry entry;
    if (text.ends_with('\n')) text.remove_suffix(1);
    const bool complete = takeNumber(text, entry.pid) && takeText(text, " ") && takeNumber(text, entry.startUnits) &&
                          takeText(text, " 0x") && takeNumber(text, entry.mask, 16) && text.empty();
    if (!complete || entry.pid <= 0) return std::nullopt;
    return entry;
}

void ProcessAssertions::read(std::span<const std::int32_t> pids, const StartOf& startOf) {
    masks_.clear();
    const auto every = [](std::string_view) { return true; };
    eachFile(places_.inhibitors, every, [this](std::string_view, std::string_view text) {
        const auto assertion = parseInhibitor(text);
        if (assertion) masks_[assertion->pid] |= assertion->mask;
        return true;  // a kind that has no assertion is nothing wrong
    });
    const auto ofOneThatLives = [&](std::string_view name) {
        std::int32_t pid = 0;
        // A name that is no pid is looked at, and then counted as of no use.
        if (!takeNumber(name, pid) || !name.empty() || std::ranges::binary_search(pids, pid)) return true;
        ++staleEntries_;
        return false;
    };
    eachFile(places_.registry, ofOneThatLives, [&](std::string_view name, std::string_view text) {
        const auto entry = parseRegistryEntry(text);
        if (!entry || name != std::to_string(entry->pid)) return false;
        if (startOf(entry->pid) != entry->startUnits) {
            ++staleEntries_;
            return true;
        }
        masks_[entry->pid] |= entry->mask;
        return true;
    });
}

void ProcessAssertions::eachFile(const std::string& folder, const Wanted& wanted, const Use& use) {
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(::opendir(folder.c_str()), ::closedir);
    if (!directory) return;
    const auto isOwnersAlone = [this](const struct stat& status) {
        return status.st_uid == places_.owner && (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
    };
    struct stat status {};
    if (fstat(dirfd(directory.get()), &status) != 0 || !isOwnersAlone(status)) {
        ++refusedFiles_;
        return;
    }
    std::size_t count = 0;
    while (const dirent* const entry = ::readdir(directory.get())) {
        const std::string_view name = entry->d_name;
        if (++count > kMaximumFiles) {
            ++refusedFiles_;
            return;
        }
        // Names with a dot are files that are being written, the login manager's pipes end in ".ref".
        if (name.find('.') != std::string_view::npos || !wanted(name)) continue;
        const Descriptor file(
            openat(dirfd(directory.get()), entry->d_name, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
        if (!file) continue;  // its holder has just let go
        std::array<char, kLongestAssertion> bytes;
        if (fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode) || !isOwnersAlone(status)) {
            ++refusedFiles_;
            continue;
        }
        const ssize_t length = ::read(file.get(), bytes.data(), bytes.size());
        if (length < 0 || !use(name, {bytes.data(), static_cast<std::size_t>(length)})) ++refusedFiles_;
    }
}

std::uint64_t ProcessAssertions::maskOf(std::int32_t pid) const {
    const auto found = masks_.find(pid);
    return found == masks_.end() ? 0 : found->second;
}

}  // namespace quorvix::linuxos
