#pragma once

#include <cstdint>
#include <limits>

// What a queue's entries carry in epoll. A watch carries its slot and that slot's generation, so that an event that was
// reported for a watch that is gone is told from one of its successor in the same slot.
namespace quorvix::linuxos::tag {

inline constexpr std::uint64_t kWakeUp = std::numeric_limits<std::uint64_t>::max();
inline constexpr std::uint64_t kMonotonic = kWakeUp - 1;
inline constexpr std::uint64_t kWall = kWakeUp - 2;
// Generations stop short of what would collide with the queue's own descriptors.
inline constexpr std::uint32_t kLastGeneration = std::numeric_limits<std::uint32_t>::max() - 1;

constexpr std::uint64_t ofWatch(std::uint32_t slot, std::uint32_t generation) {
    return std::uint64_t{generation} << 32 | slot;
}
constexpr std::uint32_t slotOf(std::uint64_t data) { return static_cast<std::uint32_t>(data); }
constexpr std::uint32_t generationOf(std::uint64_t data) { return static_cast<std::uint32_t>(data >> 32); }

}  // namespace quorvix::linuxos::tag
