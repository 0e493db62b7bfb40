#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <unordered_map>

#include "platform/Json.h"
#include "platform/SharedMemory.h"
#include "platform/linux/RegionGuard.h"

namespace quorvix::linuxos {

// The daemon's mappings of client memory, and the guarded access to them.
//
// Only a tmpfs memfd that can't shrink is mapped: anything else could take its pages away under a reader for longer
// than a fault takes to handle (a file on a slow disk), or has no pages to begin with (huge pages). Each mapping stands
// at the second page of a reservation of one fixed size, so that guarded() knows the reservation from the address
// alone, without a table and its lock. Callable from any thread; what is mapped belongs to the caller until unmap().
class MappedRegions final : public RegionMemory {
public:
    static constexpr std::uint64_t kMaximumRegionBytes = 1024 * 1024;
    static constexpr std::uint64_t kMaximumMappedBytes = 256 * 1024 * 1024;

    struct Counters {
        std::uint64_t mappings;     // now
        std::uint64_t mappedBytes;  // now, whole pages
        std::uint64_t refusedKind;  // not a sealed memfd of a size that is allowed
        std::uint64_t refusedFull;  // past the bytes that may be mapped in all
        std::uint64_t faults;       // guarded accesses that ended in a fault
    };

    explicit MappedRegions(std::uint64_t maximumMappedBytes = kMaximumMappedBytes);
    ~MappedRegions() override;
    MappedRegions(const MappedRegions&) = delete;
    MappedRegions& operator=(const MappedRegions&) = delete;

    // A new mapping of the descriptor's memory, read-write, with its true length. {nullptr, 0}: it is not to be mapped.
    SharedMemoryMapping map(int descriptor);

    bool guarded(const void* address, Access access, void* context) noexcept override;
    void unmap(void* address, std::uint64_t length) noexcept override;

    Counters counters() const;
    JsonObject selfCounters() const;

private:
    SharedMemoryMapping place(int descriptor, std::uint64_t length);

    mutable std::mutex mutex_;
    RegionGuard guard_;
    const std::uint64_t maximumMappedBytes_;
    // Address of a mapping → its whole pages in bytes.
    std::unordered_map<void*, std::uint64_t> mappings_;
    std::uint64_t mappedBytes_ = 0;
    std::uint64_t refusedKind_ = 0;
    std::uint64_t refusedFull_ = 0;
};

// A descriptor that came with a message. The message service owns the descriptor and closes it with the message.
class DescriptorMemory final : public SharedMemory {
public:
    DescriptorMemory() = default;
    DescriptorMemory(MappedRegions& regions, int descriptor) : regions_(&regions), descriptor_(descriptor) {}
    SharedMemoryMapping map() override { return regions_ ? regions_->map(descriptor_) : SharedMemoryMapping{}; }

private:
    MappedRegions* regions_ = nullptr;
    int descriptor_ = -1;
};

}  // namespace quorvix::linuxos
