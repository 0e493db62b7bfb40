#pragma once

#include <dirent.h>

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/Descriptor.h"
#include "platform/linux/ProcessSamples.h"
#include "platform/linux/ProcfsText.h"

namespace quorvix::linuxos {

// The process table from procfs: one kept directory descriptor, one buffer, no allocation a process. A process that
// goes while it is read is left out; a file that may not be read counts as zeros. One thread at a time.
class ProcfsSource final : public ProcessSource {
public:
    // The processor time of all threads of a process, exited ones too, in nanoseconds; absent where it is gone. Procfs
    // has it in hundredths of a second only.
    using ProcessClock = std::optional<std::uint64_t> (*)(std::int32_t pid);
    static std::optional<std::uint64_t> kernelClock(std::int32_t pid);

    explicit ProcfsSource(std::string root = "/proc", ProcessClock clock = kernelClock)
        : root_(std::move(root)), clock_(clock) {}

    int read(ProcessSamples& samples) override;

private:
    // The ids named by a directory, in its order; the error number, or 0.
    int listIds(int directory, std::vector<std::int32_t>& ids);
    bool readProcess(std::int32_t pid, ProcessSamples& samples);
    void readThreads(std::int32_t pid, ProcessSamples& samples);
    // The file's text, valid until the next call; empty when it can't be read.
    std::string_view readFile(int directory, const char* path);

    const std::string root_;
    const ProcessClock clock_;
    Descriptor directory_;
    std::vector<std::int32_t> pids_;
    std::vector<std::int32_t> threadIds_;
    // A directory is read in pieces of this, a file whole: the longest, status, stays below a page even with many
    // processors, but for its lists of processors and memory nodes, which come last.
    alignas(dirent64) std::array<char, 32768> buffer_;
};

}  // namespace quorvix::linuxos
