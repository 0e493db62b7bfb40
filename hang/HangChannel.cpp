#include "hang/HangChannel.h"

#include <algorithm>
#include <atomic>

#include "platform/Platform.h"
#include "platform/quorvix_channel.h"

namespace quorvix {

namespace {

constexpr double kHangThresholdMs = 5000.0;

// One word of the client's memory. `order` pairs with the client's release of `inactive`.
template <class Word>
Word readWord(Word& word, std::memory_order order = std::memory_order_relaxed) {
    return std::atomic_ref<Word>(word).load(order);
}

struct VersionRead {
    quorvix_hang_channel* channel;
    std::uint32_t version = 0;
};

struct Scan {
    HangChannelRegion region;
    double now;  // ticks
    double msPerTick;
    HangingSlot& slot;
};

// Copies the name up to its NUL, past its 64 bytes where there is none, at most to the end of the mapping.
void copyName(const HangChannelRegion& region, const char* untrustedName, HangingSlot& slot) noexcept {
    const char* const end = static_cast<const char*>(region.address) + region.length;
    const std::size_t limit =
        untrustedName < end ? std::min(static_cast<std::size_t>(end - untrustedName), HangingSlot::kNameCapacity) : 0;
    std::size_t length = 0;
    while (length < limit) {
        const char byte = static_cast<const volatile char*>(untrustedName)[length];
        if (byte == '\0') break;
        slot.name[length++] = byte;
    }
    slot.nameLength = length;
}

[[gnu::noinline]] void takeHang(HangChannelRegion region, quorvix_hang_slot& untrustedSlot, std::uint64_t startTime,
                                HangingSlot& slot) noexcept {
    // Marked first, so that this piece of work is reported once; a slot so marked lies in the future for ever.
    std::atomic_ref(untrustedSlot.startTime).store(QUORVIX_CHANNEL_REPORTED, std::memory_order_relaxed);
    copyName(region, untrustedSlot.name, slot);
    slot.startTime = startTime;
    slot.threadID = readWord(untrustedSlot.threadID);
    slot.saveReport = readWord(untrustedSlot.saveReport) != 0;
    slot.found = true;
}

// Whether the scan is over at this slot: there is none, or it hangs. The count is read anew before every slot and used
// as the client gives it: it is the client that says how many slots it has. A lie ends at the guard page behind the
// mapping.
[[gnu::always_inline]] inline bool scanEndsAt(const Scan& scan, std::uint32_t index, quorvix_hang_slot* untrustedSlot) {
    auto* const channel = static_cast<quorvix_hang_channel*>(scan.region.address);
    if (index >= readWord(channel->slotCount)) return true;
    if (readWord(untrustedSlot->inactive, std::memory_order_acquire) != 0) [[likely]]
        return false;
    const std::uint64_t startTime = readWord(untrustedSlot->startTime);
    const double elapsedMs = scan.msPerTick * (scan.now - static_cast<double>(startTime));
    if (!(elapsedMs > kHangThresholdMs)) return false;
    takeHang(scan.region, *untrustedSlot, startTime, scan.slot);
    return true;
}

void scanSlots(void* context) noexcept {
    // A copy, for the compiler to keep in registers.
    const Scan scan = *static_cast<const Scan*>(context);
    quorvix_hang_slot* slot = static_cast<quorvix_hang_channel*>(scan.region.address)->slots;
    // Four slots a round: one at rest costs two loads, and the jump back would be as dear as they are.
    for (std::uint32_t i = 0;; i += 4, slot += 4) {
        if (scanEndsAt(scan, i, slot) || scanEndsAt(scan, i + 1, slot + 1) || scanEndsAt(scan, i + 2, slot + 2) ||
            scanEndsAt(scan, i + 3, slot + 3)) {
            return;
        }
    }
}

}  // namespace

std::optional<std::uint32_t> hangChannelVersion(const HangChannelRegion& region) {
    VersionRead read{static_cast<quorvix_hang_channel*>(region.address)};
    const auto access = [](void* context) noexcept {
        auto& target = *static_cast<VersionRead*>(context);
        target.version = readWord(target.channel->version);
    };
    if (!platform().regions.guarded(region.address, access, &read)) return std::nullopt;
    return read.version;
}

void prefetchHangChannel(const HangChannelRegion& region) noexcept {
    // Not an access: where the address can't be read, nothing happens. The client's own count is not asked for, as that
    // would be one.
    const auto* const channel = static_cast<const quorvix_hang_channel*>(region.address);
    for (const quorvix_hang_slot& slot : channel->slots) __builtin_prefetch(&slot.inactive);
}

bool findHangingSlot(const HangChannelRegion& region, std::uint64_t now, double msPerTick, HangingSlot& slot) {
    Scan scan{region, static_cast<double>(now), msPerTick, slot};
    slot.found = false;
    return platform().regions.guarded(region.address, scanSlots, &scan);
}

}  // namespace quorvix
