#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/linux/Descriptor.h"
#include "platform/linux/ProcessSamples.h"
#include "platform/linux/ProcfsReader.h"
#include "platform/linux/ProcfsText.h"

namespace quorvix::linuxos {

// The process table from procfs: one kept directory descriptor, one buffer, no allocation a process. A process that
// goes while it is read is left out; a file that may not be read counts as zeros. One thread at a time.
//
// Procfs is slow, mostly for opening its files, so only what can have changed is read again. A process's CPU clock
// stands still for as long as none of its threads runs, and nothing but its sizes and its threads' scheduling changes
// meanwhile: others may take its memory or give it another nice value, all the rest it does itself.
class ProcfsSource final : public ProcessSource {
public:
    struct Scheduling {
        std::uint32_t policy;
        std::int32_t nice;
    };
    // What no file tells as well.
    struct Calls {
        // The processor time of all threads of a process, exited ones too, in nanoseconds; absent where it is gone.
        // Procfs has it in hundredths of a second only.
        std::optional<std::uint64_t> (*clock)(std::int32_t pid);
        // Absent where the kernel doesn't tell: the thread's stat is read then.
        std::optional<Scheduling> (*scheduling)(std::int32_t tid);
    };
    static std::optional<std::uint64_t> kernelClock(std::int32_t pid);
    static std::optional<Scheduling> kernelScheduling(std::int32_t tid);
    static constexpr Calls kKernelCalls{kernelClock, kernelScheduling};

    explicit ProcfsSource(std::string root = "/proc", Calls calls = kKernelCalls)
        : root_(std::move(root)), calls_(calls) {}

    int read(ProcessSamples& samples) override;

private:
    // One folder of ids. Its inode tells a process or thread from an earlier one of the same id: the kernel keeps it no
    // longer than what it stands for, and numbers them in turn.
    struct Entry {
        std::int32_t id;
        std::uint64_t inode;
    };
    struct KnownProcess {
        std::uint64_t inode;
        std::uint64_t clockNs;  // before anything else of it was read
        ProcessSample sample;
    };
    struct KnownThread {
        std::uint64_t inode;
        ThreadSample sample;
    };
    // What was read for one table, in the order of reading; samples' firstThread counts in `threads`.
    struct Known {
        std::vector<KnownProcess> processes;
        std::vector<KnownThread> threads;
    };

    // The ids named by a directory, in its order; the error number, or 0.
    int listIds(int directory, std::vector<Entry>& ids);
    void readProcess(const Entry& entry, ProcessSamples& samples);
    // From the last table; null when it was not there.
    const KnownProcess* lastOf(const Entry& entry);
    bool repeat(const KnownProcess& last, ProcessSamples& samples);
    bool repeatThreads(const KnownProcess& last, ProcessSamples& samples);
    bool readThreadsThatRan(const KnownProcess& last, std::uint64_t runtimeNs, ProcessSamples& samples);
    std::span<const KnownThread> threadsOf(const KnownProcess& last) const;
    void readName(const StatText& stat, ProcessSample& process);
    void readSizes(ProcessSample& process);
    void readThreads(std::int32_t pid, const KnownProcess* last, ProcessSamples& samples);
    void addThread(const KnownThread& thread, ProcessSamples& samples);

    const std::string root_;
    const Calls calls_;
    Descriptor directory_;
    std::vector<Entry> processEntries_;
    std::vector<Entry> threadEntries_;
    Known last_;
    Known next_;
    std::size_t lastPlace_ = 0;  // in last_.processes, of the process that is read
    ProcfsReader reader_;
};

}  // namespace quorvix::linuxos
