#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "hang/HangChannel.h"
#include "platform/Platform.h"
#include "platform/quorvix_channel.h"
#include "platform/sim/SimPlatform.h"

namespace quorvix::fuzz {

namespace hang_channel {

inline void require(bool holds, const char* what) {
    if (holds) return;
    std::fprintf(stderr, "hang channel: %s\n", what);
    std::abort();
}

// What a look at a region must find, told from a copy of its pages: plain, one byte after the other.
struct Expected {
    bool readable = true;
    std::optional<std::size_t> slot;  // its offset
    std::string name;
};

inline Expected expectedOf(const std::vector<std::uint8_t>& pages, std::size_t length, std::uint64_t now,
                           double msPerTick) {
    bool faulted = false;
    const auto word = [&](std::size_t at, std::size_t size) {
        std::uint64_t value = 0;
        faulted = faulted || at + size > pages.size();
        if (!faulted) std::memcpy(&value, pages.data() + at, size);
        return value;
    };
    const std::uint64_t count = word(4, 4);
    for (std::uint64_t index = 0; index < count; ++index) {
        const std::size_t slot = 8 + 104 * index;
        if (word(slot + 16, 4) != 0 && !faulted) continue;
        if (faulted) return {.readable = false, .slot = {}, .name = {}};
        const double elapsedMs = msPerTick * (static_cast<double>(now) - static_cast<double>(word(slot, 8)));
        if (!(elapsedMs > 5000.0)) continue;
        word(slot + 20, 4);
        word(slot + 32, 8);
        if (faulted) return {.readable = false, .slot = slot, .name = {}};
        Expected found{.readable = true, .slot = slot, .name = {}};
        for (std::size_t at = slot + 40; at < length && pages[at] != 0 && found.name.size() < 4096; ++at) {
            found.name.push_back(static_cast<char>(pages[at]));
        }
        return found;
    }
    return {};
}

}  // namespace hang_channel

// The real look at a client's region, in memory with guard pages. The bytes: one for the clock's kind, eight for the
// time in ticks, two for the region's length, the rest is the region. It must find what a plain reading of the same
// bytes finds, mark that slot and change no other byte. True when a hang was found.
inline bool hangChannelHolds(std::string_view bytes) {
    using namespace hang_channel;
    constexpr std::size_t kHead = 11;
    constexpr std::size_t kPage = 4096;
    if (bytes.size() < kHead) return false;
    const double msPerTick = (bytes[0] & 1) != 0 ? static_cast<double>(125.0f * 1e-6f / 3.0f) : 1.0;
    std::uint64_t now = 0;
    std::uint16_t longer = 0;
    std::memcpy(&now, bytes.data() + 1, sizeof now);
    std::memcpy(&longer, bytes.data() + 9, sizeof longer);
    const std::size_t length = QUORVIX_CHANNEL_MINIMUM_LENGTH + longer % 14000;

    static sim::SimPlatform device;
    setPlatform(&device.services);
    sim::SimSharedMemory memory(device.regions, length);
    const SharedMemoryMapping mapping = memory.map();
    require(mapping.address != nullptr && mapping.length == length, "a region that can't be mapped");
    const std::size_t given = std::min(length, bytes.size() - kHead);
    std::copy_n(bytes.begin() + kHead, given, memory.bytes().begin());
    std::vector<std::uint8_t> pages((length + kPage - 1) / kPage * kPage);
    std::copy_n(memory.bytes().begin(), length, pages.begin());

    bool any = false;
    HangingSlot slot;
    // As often as there may be hangs, and once more: each is found once.
    for (std::size_t looks = 0;; ++looks) {
        require(looks <= pages.size() / sizeof(quorvix_hang_slot) + 1, "the same hang again and again");
        const Expected expected = expectedOf(pages, length, now, msPerTick);
        const bool readable = findHangingSlot({mapping.address, length}, now, msPerTick, slot);
        require(readable == expected.readable, "a fault that was missed, or seen where none is");
        if (expected.slot) {
            constexpr std::uint64_t kReported = QUORVIX_CHANNEL_REPORTED;
            std::uint64_t start = 0;
            std::memcpy(&start, &pages[*expected.slot], sizeof start);
            require(!readable || (slot.found && slot.startTime == start), "another hang than the first");
            std::memcpy(&pages[*expected.slot], &kReported, sizeof kReported);
        }
        require(std::equal(memory.bytes().begin(), memory.bytes().end(), pages.begin()), "a byte that was changed");
        if (!readable) break;
        require(slot.found == expected.slot.has_value(), "a hang where none is, or none where one is");
        if (!slot.found) break;
        require(std::string_view(slot.name, slot.nameLength) == expected.name, "another name");
        any = true;
    }
    device.regions.unmap(mapping.address, mapping.length);
    setPlatform(nullptr);
    return any;
}

}  // namespace quorvix::fuzz
