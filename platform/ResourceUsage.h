#pragma once

#include <array>
#include <cstdint>

namespace quorvix {

// One process's resource usage, version 3: a fixed record of an identifier and 27 counters. CPU times are ticks of the
// tick clock. What the platform has no source for is 0 (docs/linux-sources.md lists it).
struct ResourceUsage {
    std::array<std::uint8_t, 16> uuid;
    std::uint64_t userTime;
    std::uint64_t systemTime;
    std::uint64_t packageIdleWakeups;
    std::uint64_t interruptWakeups;
    std::uint64_t pageIns;            // pages
    std::uint64_t wiredSize;          // bytes
    std::uint64_t residentSize;       // bytes
    std::uint64_t physicalFootprint;  // bytes
    std::uint64_t startTime;          // ticks
    std::uint64_t exitTime;           // ticks
    std::uint64_t childUserTime;
    std::uint64_t childSystemTime;
    std::uint64_t childPackageIdleWakeups;
    std::uint64_t childInterruptWakeups;
    std::uint64_t childPageIns;
    std::uint64_t childElapsedTime;
    std::uint64_t diskBytesRead;
    std::uint64_t diskBytesWritten;
    // CPU time by quality-of-service class of the thread that used it.
    std::uint64_t unspecifiedTime;
    std::uint64_t maintenanceTime;
    std::uint64_t backgroundTime;
    std::uint64_t utilityTime;
    std::uint64_t legacyTime;
    std::uint64_t userInitiatedTime;
    std::uint64_t userInteractiveTime;
    std::uint64_t billedSystemTime;
    std::uint64_t servicedSystemTime;
};
static_assert(sizeof(ResourceUsage) == 232, "a fixed record");

}  // namespace quorvix
