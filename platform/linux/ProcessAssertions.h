#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>

namespace quorvix::linuxos {

struct ProcessAssertion {
    std::int32_t pid = 0;
    std::uint64_t mask = 0;
};

// One of the login manager's inhibitor files: its WHAT and PID. Nothing where either is missing.
std::optional<ProcessAssertion> parseInhibitor(std::string_view text);

// One entry of the registry folder: "PID START MASK", the start time as in /proc/PID/stat, the mask hexadecimal behind
// "0x". Nothing where the text is another.
struct RegistryEntry {
    std::int32_t pid = 0;
    std::uint64_t startUnits = 0;
    std::uint64_t mask = 0;
};
std::optional<RegistryEntry> parseRegistryEntry(std::string_view text);

// Who holds which assertions: the login manager's inhibitors, by kind, and a registry folder in which root notes masks.
// Read whole once a snapshot; both sources may be absent. One thread.
class ProcessAssertions {
public:
    struct Places {
        std::string inhibitors = "/run/systemd/inhibit";
        std::string registry = "/run/vex/assertions";
        uid_t owner = 0;  // whose files count
    };
    // The start time of a living process; nothing where it is gone.
    using StartOf = std::function<std::optional<std::uint64_t>(std::int32_t pid)>;
    // More names than this in a folder are not looked at.
    static constexpr std::size_t kMaximumFiles = 4096;

    explicit ProcessAssertions(Places places) : places_(std::move(places)) {}

    // Registry entries of other processes than these, whose ids are in order, are not opened: however many there are,
    // they cost no more than their names.
    void read(std::span<const std::int32_t> pids, const StartOf& startOf);
    std::uint64_t maskOf(std::int32_t pid) const;
    // Registry entries of processes that are gone, and whose pid another has now.
    std::uint64_t staleEntries() const { return staleEntries_; }
    // Files that were of no use: not root's, damaged, or too many.
    std::uint64_t refusedFiles() const { return refusedFiles_; }

private:
    using Wanted = std::function<bool(std::string_view name)>;
    // False: of no use.
    using Use = std::function<bool(std::string_view name, std::string_view text)>;

    // Every wanted file of a folder that root alone may write.
    void eachFile(const std::string& folder, const Wanted& wanted, const Use& use);

    const Places places_;
    std::unordered_map<std::int32_t, std::uint64_t> masks_;
    std::uint64_t staleEntries_ = 0;
    std::uint64_t refusedFiles_ = 0;
};

}  // namespace quorvix::linuxos
