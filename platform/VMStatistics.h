#pragma once

#include <cstdint>

#include "platform/Result.h"

namespace quorvix {

// The host's virtual-memory counters, 64-bit form. Counts are pages; those of 32 bits are amounts now, those of 64 bits
// run since boot. A field that the platform has no source for is 0 (docs/linux-sources.md lists it).
struct vm_statistics64 {
    std::uint32_t free_count;
    std::uint32_t active_count;
    std::uint32_t inactive_count;
    std::uint32_t wire_count;
    std::uint64_t zero_fill_count;
    std::uint64_t reactivations;
    std::uint64_t pageins;
    std::uint64_t pageouts;
    std::uint64_t faults;
    std::uint64_t cow_faults;
    std::uint64_t lookups;
    std::uint64_t hits;
    std::uint64_t purges;
    std::uint32_t purgeable_count;
    std::uint32_t speculative_count;
    std::uint64_t decompressions;
    std::uint64_t compressions;
    std::uint64_t swapins;
    std::uint64_t swapouts;
    std::uint32_t compressor_page_count;
    std::uint32_t throttled_count;
    std::uint32_t external_page_count;
    std::uint32_t internal_page_count;
    std::uint64_t total_uncompressed_pages_in_compressor;
};
static_assert(sizeof(vm_statistics64) == 38 * sizeof(std::uint32_t), "38 words");

// The element count of the query, in 32-bit words.
inline constexpr std::uint32_t kVMStatistics64Count = 38;

// Figures of the whole host. Callable from any thread.
class HostStatistics {
public:
    virtual ~HostStatistics() = default;
    // Fills the record; count is kVMStatistics64Count.
    virtual Result<void> vmStatistics64(vm_statistics64& statistics, std::uint32_t count) = 0;
    // Bytes of a page.
    virtual std::uint64_t pageSize() = 0;
    // Seconds since the Epoch at which the host booted.
    virtual Result<std::int64_t> bootTimeSeconds() = 0;
};

}  // namespace quorvix
