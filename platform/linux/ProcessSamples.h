#pragma once

#include <array>
#include <cstdint>
#include <string_view>
#include <vector>

#include "platform/linux/QosClass.h"

namespace quorvix::linuxos {

// At most 31 characters and a NUL: what a record of the snapshot holds.
inline constexpr std::size_t kProcessNameBytes = 32;
// The kernel keeps this much of a name, without its NUL.
inline constexpr std::size_t kCommLength = 15;
// The unit of start times: the kernel shows them to users in hundredths of a second, whatever its own clock is.
inline constexpr std::uint64_t kStartUnitsPerSecond = 100;

struct ThreadSample {
    std::int32_t tid;
    QosClass qosClass;
    std::uint64_t startUnits;
    std::uint64_t runtimeNs;
};

// What the kernel says of one process, threads that have exited included.
struct ProcessSample {
    std::int32_t pid;
    bool isKernelThread;
    std::array<char, kProcessNameBytes> name;
    std::uint64_t startUnits;  // since boot, time asleep included
    std::uint64_t runtimeNs;   // of all threads, living and exited
    // What the sampling tick saw: only their ratio counts, so their unit is whatever the source has.
    std::uint64_t userShare;
    std::uint64_t systemShare;
    std::uint64_t majorFaults;
    std::uint64_t diskBytesRead;
    std::uint64_t diskBytesWritten;
    std::uint64_t wiredBytes;
    std::uint64_t residentBytes;
    std::uint64_t footprintBytes;
    std::uint32_t firstThread;
    std::uint32_t threadCount;
};

// One whole table. Kept by its owner and filled again and again, so that its memory is taken once.
struct ProcessSamples {
    std::vector<ProcessSample> processes;  // ascending pids
    std::vector<ThreadSample> threads;     // a process's in one run, ascending thread ids

    void clear() {
        processes.clear();
        threads.clear();
    }
    // Brings both into their order, which the sources give nearly always.
    void sort();
};

// Where a table comes from.
class ProcessSource {
public:
    virtual ~ProcessSource() = default;
    // Fills the table from nothing; the error number, or 0.
    virtual int read(ProcessSamples& samples) = 0;
};

// The name that a record shows: comm, or where the kernel cut it, the executable's name that it begins.
void setProcessName(ProcessSample& process, std::string_view comm);
bool mayBeCut(std::string_view comm);
void completeProcessName(ProcessSample& process, std::string_view comm, std::string_view executablePath);
// Procfs shows what a kernel worker is busy with behind its name; the name itself is what stays the same.
std::string_view kernelThreadComm(std::string_view shown);

}  // namespace quorvix::linuxos
