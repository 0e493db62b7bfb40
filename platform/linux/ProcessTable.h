#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "platform/Json.h"
#include "platform/ResourceUsage.h"
#include "platform/SystemLog.h"
#include "platform/linux/CpuTimeLedger.h"
#include "platform/linux/ProcessSamples.h"

namespace quorvix::linuxos {

// The frozen table of all processes and what is summed up over time beside it. Read from the first source that can
// read; one that fails is not asked again, with one line in the log. One thread at a time: its owner's snapshots come
// from one queue.
class ProcessTable {
public:
    // Sources are tried in their order. log: null for none.
    ProcessTable(std::vector<std::unique_ptr<ProcessSource>> sources, SystemLog* log);

    // Reads the whole table anew; the error number, or 0. After an error the table is empty.
    int freeze();
    std::span<const ProcessSample> processes() const { return samples_.processes; }
    // The place of a process in the table, or -1. Costs nothing where processes are asked for in their order.
    std::ptrdiff_t find(std::int32_t pid);
    ResourceUsage usage(std::size_t place) const;

    std::uint64_t reads() const { return reads_; }
    std::uint64_t failedSources() const { return next_; }

private:
    void retire(int error);

    std::vector<std::unique_ptr<ProcessSource>> sources_;
    SystemLog* log_;
    std::size_t next_ = 0;  // the source in use; those before it failed
    ProcessSamples samples_;
    CpuTimeLedger ledger_;
    std::size_t lastFound_ = 0;
    std::uint64_t reads_ = 0;
};

}  // namespace quorvix::linuxos
