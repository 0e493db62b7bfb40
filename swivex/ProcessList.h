#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "swivex/Deadline.h"
#include "swivex/Outcome.h"

namespace quorvix::swivex {

struct ThreadEntry {
    pid_t tid = 0;
    std::string name;
    std::vector<pid_t> namespaceTids;  // in the namespaces below ours, innermost last
};

struct ProcessEntry {
    pid_t pid = 0;
    pid_t ppid = 0;
    std::uint32_t uid = 0;
    bool isKernel = false;
    std::uint64_t startNs = 0;  // since boot
    std::string name;
    std::vector<std::string> arguments;  // empty where they could not be had
    std::vector<pid_t> namespacePids;    // in the namespaces below ours, innermost last
    std::vector<ThreadEntry> threads;    // the first thread included

    bool hasMemory = false;  // kernel threads have none
    std::uint64_t sizeKb = 0, residentKb = 0, anonymousKb = 0, fileKb = 0, sharedKb = 0, swapKb = 0, lockedKb = 0,
                  peakKb = 0;
    std::int32_t oomScoreAdj = 0;
    std::uint64_t userNs = 0, kernelNs = 0;
};

struct ProcessList {
    std::vector<ProcessEntry> processes;
    std::string problem;  // why it is not all of them; else empty
};

// Every process and thread, `first` before all others, until the deadline. Reads only files that the kernel makes from
// its own tables: what needs a process's memory (its arguments) can wait for ever, and is read elsewhere.
ProcessList listProcesses(const std::string& procFolder, pid_t first, const Deadline& deadline);

// The id that the kernel itself has for a thread which knows itself as `id`; 0 when the process has no such thread.
pid_t hostThread(const ProcessEntry& process, std::int64_t id);

}  // namespace quorvix::swivex
