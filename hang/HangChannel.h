#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

namespace quorvix {

// Reads of a client's hang channel region. The client writes it at any time, can lie in every word and can make any
// address of it fault, so all of it happens in functions that own nothing and run guarded; what leaves them was copied
// once.

// A slot that hangs.
struct HangingSlot {
    // A name without a NUL is cut here at the latest.
    static constexpr std::size_t kNameCapacity = 4096;

    bool found = false;
    std::uint64_t startTime = 0;  // ticks
    std::uint64_t threadID = 0;
    bool saveReport = false;
    std::size_t nameLength = 0;
    char name[kNameCapacity];  // nameLength bytes
};

struct HangChannelRegion {
    void* address;
    std::uint64_t length;  // bytes
};

// The region's version; nothing when it can't be read.
std::optional<std::uint32_t> hangChannelVersion(const HangChannelRegion& region);

// Asks the processor to fetch the slots of a region that is looked at next: the memory of a thousand clients is in no
// cache, and waiting for it is most of what a check costs. Reads nothing, can't fault.
void prefetchHangChannel(const HangChannelRegion& region) noexcept;

// Finds the first slot whose work has run for more than 5000 ms, marks it as reported and copies it to `slot`
// (`found` says whether there is one). False: the region can't be read. Allocates nothing, makes no system call.
[[nodiscard]] bool findHangingSlot(const HangChannelRegion& region, std::uint64_t now, double msPerTick,
                                   HangingSlot& slot);

}  // namespace quorvix
