#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "platform/linux/ProcessSamples.h"

namespace quorvix::linuxos {

// One process's processor time in nanoseconds. The classes add up to user and system time.
struct CpuTimes {
    std::uint64_t userNs = 0;
    std::uint64_t systemNs = 0;
    std::array<std::uint64_t, kQosClassCount> classNs{};

    std::uint64_t& of(QosClass qosClass) { return classNs[static_cast<std::size_t>(qosClass)]; }
    std::uint64_t totalNs() const;
};

// Processor time by class that never runs backwards, from tables that know each living thread's time and its class at
// that moment. What a thread used since the last table is added to the class it is in now; what belongs to no living
// thread is unspecified. Kept by process id and start time, so that a reused id starts anew; a process that is not in
// a table is forgotten. One thread at a time.
class CpuTimeLedger {
public:
    // Takes the next table (sorted). times()[i] is then that of samples.processes[i].
    void update(const ProcessSamples& samples);
    const std::vector<CpuTimes>& times() const { return times_; }

private:
    struct Process {
        std::int32_t pid;
        std::uint64_t startUnits;
        std::uint32_t firstThread;
        std::uint32_t threadCount;
    };

    CpuTimes next(const ProcessSample& process, const ProcessSamples& samples, const Process* before,
                  const CpuTimes* timesBefore) const;

    // The last table: what it held, and what had been summed up by then.
    std::vector<Process> processes_;
    std::vector<ThreadSample> threads_;
    std::vector<CpuTimes> times_;
    // The one before, kept for its memory.
    std::vector<CpuTimes> spare_;
};

}  // namespace quorvix::linuxos
