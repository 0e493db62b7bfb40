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
    std::uint64_t now;
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

void scanSlots(void* context) noexcept {
    Scan& scan = *static_cast<Scan*>(context);
    auto* const channel = static_cast<quorvix_hang_channel*>(scan.region.address);
    const double now = static_cast<double>(scan.now);
    // The count is read anew before every slot and used as the client gives it: it is the client that says how many
    // slots it has. A lie ends at the guard page behind the mapping.
    quorvix_hang_slot* untrustedSlot = channel->slots;
    for (std::uint32_t i = 0; i < readWord(channel->slotCount); ++i, ++untrustedSlot) {
        if (readWord(untrustedSlot->inactive, std::memory_order_acquire) != 0) continue;
        const std::uint64_t startTime = readWord(untrustedSlot->startTime);
        const double elapsedMs = scan.msPerTick * (now - static_cast<double>(startTime));
        if (!(elapsedMs > kHangThresholdMs)) continue;

        // Marked first, so that this piece of work is reported once; a slot so marked lies in the future for ever.
        std::atomic_ref(untrustedSlot->startTime).store(QUORVIX_CHANNEL_REPORTED, std::memory_order_relaxed);
        copyName(scan.region, untrustedSlot->name, scan.slot);
        scan.slot.startTime = startTime;
        scan.slot.threadID = readWord(untrustedSlot->threadID);
        scan.slot.saveReport = readWord(untrustedSlot->saveReport) != 0;
        scan.slot.found = true;
        return;
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

bool findHangingSlot(const HangChannelRegion& region, std::uint64_t now, double msPerTick, HangingSlot& slot) {
    Scan scan{region, now, msPerTick, slot};
    slot.found = false;
    return platform().regions.guarded(region.address, scanSlots, &scan);
}

}  // namespace quorvix
