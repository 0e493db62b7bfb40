#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "swivex/ProcessNamespace.h"
#include "swivex/TraceInstance.h"

namespace quorvix::swivex {

struct DumpRequest {
    std::optional<std::string_view> reason = std::nullopt;
    bool names = true;  // symbol names may be written
    std::uint64_t minTicks = 0;
    std::uint64_t maxTicks = 0;
};

struct DumpSettings {
    static constexpr std::chrono::milliseconds kBudget{2000};

    TraceInstance recorder;
    std::string procFolder = "/proc";
    std::string cgroupFolder = "/sys/fs/cgroup";
    // Events give the kernel's ids: where ours are others, they would tell of the wrong threads.
    bool idsAreTheKernels = seesTheKernelsIds();
    std::chrono::milliseconds budget = kBudget;
};

// Writes one trace file of the window to fd: what the recorder holds, and a look at the system now. Returns when it is
// written, at most a little after the budget; what there was no time for, or what can't be read, the file says. False:
// the request makes no sense, or fd takes no whole file. Changes nothing of its caller: not the signals, not the files.
bool dump(int fd, const DumpRequest& request, const DumpSettings& settings);

}  // namespace quorvix::swivex
