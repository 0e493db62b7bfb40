#pragma once

#include <cstdint>

namespace quorvix {

// A client's memory mapped into the daemon. {nullptr, 0}: it could not be mapped.
struct SharedMemoryMapping {
    void* address = nullptr;
    std::uint64_t length = 0;
};

// A shared-memory object that came with a message. Lives as long as the message.
class SharedMemory {
public:
    virtual ~SharedMemory() = default;
    // Maps the object read-write with its true length. Every call makes a new mapping, which the caller gives back
    // through RegionMemory::unmap.
    virtual SharedMemoryMapping map() = 0;
};

// Access to mapped client memory. The client can make any address of it fault at any time, so nothing touches a region
// but functions run by guarded().
class RegionMemory {
public:
    // Must own nothing and call nothing that owns: a fault leaves it on the spot.
    using Access = void (*)(void* context) noexcept;

    virtual ~RegionMemory() = default;
    // Runs access(context). False: it faulted inside the reservation around `address` and was left at the fault.
    // Allocates nothing, makes no system call. One call at a time per thread.
    virtual bool guarded(const void* address, Access access, void* context) noexcept = 0;
    // Frees the mapping with all that was reserved around it. Harmless when that was already done.
    virtual void unmap(void* address, std::uint64_t length) noexcept = 0;
};

}  // namespace quorvix
