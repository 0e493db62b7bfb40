#include "service/FenceTable.h"

#include <algorithm>

#include "platform/PropertyList.h"

namespace quorvix {

void FenceTable::begin(std::int64_t name, std::int64_t startTime) {
    const std::int32_t slot = fenceNextSlot_ % kSlots;
    const std::int32_t next = fenceNextSlot_ + 1;
    fenceNextSlot_ = next % kSlots == 0 ? 0 : next;
    slots_[static_cast<std::size_t>(slot)] = {name, startTime, kOpenEnd};
    fenceLastSlot_ = slot;
}

bool FenceTable::end(std::int64_t name, std::int64_t endTime) {
    Slot* found = &slots_[static_cast<std::size_t>(fenceLastSlot_)];
    if (found->name != name) {
        // The newest fence is not the one: the last slot of that name wins.
        found = nullptr;
        for (Slot& slot : slots_) {
            if (slot.name == name) found = &slot;
        }
        if (!found) return false;
    }
    found->endTime = endTime;
    return true;
}

std::uint64_t FenceTable::overlapMs(std::uint64_t startTime, std::uint64_t endTime, double msPerTick) const {
    std::uint64_t total = 0;
    for (const Slot& slot : slots_) {
        // Compared unsigned: a negative time of a client is a late one.
        const std::uint64_t low = std::max(static_cast<std::uint64_t>(slot.startTime), startTime);
        const std::uint64_t high = std::min(static_cast<std::uint64_t>(slot.endTime), endTime);
        if (high <= low) continue;
        total = saturated<std::uint64_t>(static_cast<double>(total) + msPerTick * static_cast<double>(high - low));
    }
    return total;
}

}  // namespace quorvix
