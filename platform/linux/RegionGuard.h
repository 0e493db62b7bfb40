#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/SharedMemory.h"

namespace quorvix::linuxos {

// Runs code over memory that a client can make fault at any time, and comes back when it does.
//
// The first guard of the process installs handlers of SIGSEGV and SIGBUS for good. A fault at an address inside the
// range that its own thread has armed ends the guarded call; every other fault goes to the action that stood before,
// so that a bug of ours still ends the process as it would have. Callable from any thread, one call at a time on each.
class RegionGuard {
public:
    RegionGuard();

    // Runs access(context). False: it faulted inside [begin, begin + length) and was left there. No allocation, no
    // system call (the signal mask is not saved: the handlers do not block their signals).
    bool guarded(const void* begin, std::size_t length, RegionMemory::Access access, void* context) noexcept;

    // Faults that ended a guarded call, of all guards of the process.
    static std::uint64_t faults() noexcept;
};

}  // namespace quorvix::linuxos
