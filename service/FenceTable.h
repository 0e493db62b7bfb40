#pragma once

#include <array>
#include <cstdint>

namespace quorvix {

// The intervals during which clients expect a hang: a ring of the five newest fences. A hang that overlaps them for
// long enough is put down to the fence instead of the app. Lives on daemonQueue; slots are never cleared, only
// overwritten, so that a hang reported after its fence ended still finds it.
class FenceTable {
public:
    static constexpr std::int32_t kSlots = 5;
    // The end of a fence that is still open.
    static constexpr std::int64_t kOpenEnd = 0x7FFFFFFFFFFFFFFF;

    struct Slot {
        std::int64_t name = 0;  // chosen by the client; a number, not a text
        std::int64_t startTime = 0;
        std::int64_t endTime = 0;
    };

    void begin(std::int64_t name, std::int64_t startTime);
    // False: no slot has this name. A slot that was never filled has name 0 and matches it, on purpose.
    [[nodiscard]] bool end(std::int64_t name, std::int64_t endTime);
    // How long [startTime, endTime] (raw ticks) lies within fences, in whole milliseconds: each slot's share is added
    // and the sum cut to whole milliseconds, slot by slot. Two fences that overlap each other count twice.
    std::uint64_t overlapMs(std::uint64_t startTime, std::uint64_t endTime, double msPerTick) const;

    const std::array<Slot, kSlots>& slots() const { return slots_; }

private:
    std::array<Slot, kSlots> slots_{};
    std::int32_t fenceNextSlot_ = 0;
    std::int32_t fenceLastSlot_ = 0;
};

}  // namespace quorvix
