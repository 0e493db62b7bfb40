#pragma once

#include <cerrno>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Json.h"
#include "platform/KernelMemory.h"
#include "platform/linux/Descriptor.h"
#include "platform/linux/ProcessAssertions.h"
#include "platform/linux/ProcfsReader.h"

namespace quorvix::linuxos {

// Anonymous pages of /proc/PID/statm's text, and whether the process has memory of its own at all: kernel threads and
// processes that have ended have none.
struct StatmText {
    std::uint64_t anonymousPages = 0;
    bool hasMemory = false;
};
StatmText parseStatm(std::string_view text);

// The number in /proc/PID/oom_score_adj's text.
std::optional<std::int32_t> parseScoreAdjustment(std::string_view text);

// Per-process memory from procfs, through one kept directory descriptor and one buffer. The priority list reads each
// process's size too, since that tells processes from kernel threads; the footprint is answered from there. The files
// it reads are sums that the kernel keeps: none of them walks a process's page tables. One thread.
class LinuxProcessMemory final : public ProcessMemory {
public:
    struct Places {
        std::string proc = "/proc";
        ProcessAssertions::Places assertions = {};
    };

    LinuxProcessMemory() : LinuxProcessMemory(Places{}) {}
    explicit LinuxProcessMemory(Places places) : places_(std::move(places)), assertions_(places_.assertions) {}

    Result<std::vector<MemoryPriority>> priorityList() override;
    Result<std::string> executablePath(std::int32_t pid) override;
    // As of the last priority list; ESRCH: not in it.
    Result<std::uint64_t> physicalFootprint(std::int32_t pid) override;
    std::uint64_t assertions(std::int32_t pid) override { return assertions_.maskOf(pid); }

    JsonObject selfCounters() const;

private:
    struct Footprint {
        std::int32_t pid;
        std::uint64_t bytes;
    };

    // What tells of one process: nothing where it is no process of the list.
    struct Entry {
        std::uint64_t footprint = 0;
        std::int32_t priority = 0;
    };

    int openDirectory();
    std::optional<Entry> entryOf(std::int32_t pid);
    // Whether a process whose files can't be read is one all the same.
    bool hasExecutable(std::int32_t pid);
    int listIds(int directory, std::vector<std::int32_t>& ids);
    bool swapIsUsed();
    // Anonymous and swapped bytes of what /proc/PREFIX tells of; nothing where it has no memory or is gone.
    std::optional<std::uint64_t> footprintOf(const std::string& prefix);
    // The same from a thread that still runs, where the first one has ended.
    std::optional<std::uint64_t> footprintOfThreads(std::int32_t pid);
    std::optional<std::uint64_t> startOf(std::int32_t pid);
    // Valid until the next call; empty when it can't be read.
    std::string_view readFile(const std::string& path) { return reader_.file(directory_.get(), path.c_str()); }
    std::string_view readLink(const std::string& path) { return reader_.link(directory_.get(), path.c_str()); }
    // The last one, for another reason than that its process is gone.
    bool couldNotBeRead() const {
        return reader_.error() != 0 && reader_.error() != ENOENT && reader_.error() != ESRCH;
    }

    const Places places_;
    ProcessAssertions assertions_;
    Descriptor directory_;
    std::vector<std::int32_t> pids_;
    std::vector<std::int32_t> threads_;
    std::vector<Footprint> footprints_;  // in the order of their pids
    bool swapIsUsed_ = false;
    std::uint64_t lists_ = 0;
    std::uint64_t unreadable_ = 0;
    ProcfsReader reader_;
};

}  // namespace quorvix::linuxos
