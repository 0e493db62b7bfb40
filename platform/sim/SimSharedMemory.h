#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <span>

#include "platform/SharedMemory.h"
#include "platform/linux/SharedMemory.h"
#include "platform/quorvix_channel.h"
#include "platform/sim/Faults.h"

namespace quorvix::sim {

// The simulated access to client memory: real mappings with real guard pages, so that a lie about a slot count faults
// as it does on a device. Records what was mapped and given back. Used on the test's thread; owned by the test.
// Fault operations: "map" (gives nothing), "guarded" (the access does not run and counts as faulted).
class SimRegionMemory final : public RegionMemory {
public:
    // A new mapping of a client's memory; what SimSharedMemory::map calls.
    SharedMemoryMapping map(int descriptor);

    bool guarded(const void* address, Access access, void* context) noexcept override;
    void unmap(void* address, std::uint64_t length) noexcept override;

    // The next guarded access to the mapping at `address` faults at once.
    void faultNextAccess(const void* address) { faultAt_ = address; }

    std::uint64_t liveMappings() const { return regions_.counters().mappings; }
    std::uint64_t mapCount() const { return mapCount_; }
    std::uint64_t unmapCount() const { return unmapCount_; }
    // How often the address was given to unmap() since it was mapped last: 1 when all is well.
    std::uint64_t unmapCount(const void* address) const;
    // unmap() calls of an address that was not mapped then: given back twice, or never had.
    std::uint64_t surplusUnmaps() const { return surplusUnmaps_; }
    // unmap() calls whose length was not the mapping's.
    std::uint64_t wrongLengthUnmaps() const { return wrongLengthUnmaps_; }
    std::uint64_t guardedCalls() const { return guardedCalls_; }
    std::uint64_t faults() const { return faults_; }
    const SharedMemoryMapping& lastMapping() const { return lastMapping_; }

    Faults& callFaults() { return callFaults_; }
    // Told of every map(): of one that failed too.
    std::function<void(const SharedMemoryMapping&)> onMap;

private:
    struct Record {
        std::uint64_t length = 0;
        std::uint64_t unmaps = 0;
        bool live = false;
    };

    linuxos::MappedRegions regions_;
    Faults callFaults_;
    std::map<const void*, Record> records_;
    SharedMemoryMapping lastMapping_;
    const void* faultAt_ = nullptr;
    std::uint64_t mapCount_ = 0;
    std::uint64_t unmapCount_ = 0;
    std::uint64_t surplusUnmaps_ = 0;
    std::uint64_t wrongLengthUnmaps_ = 0;
    std::uint64_t guardedCalls_ = 0;
    std::uint64_t faults_ = 0;
};

// A client's memory in a simulation. bytes() is the client's own view; every map() makes a view of the daemon's.
// Shared by the client and by the messages that carry it; must not outlive its SimRegionMemory.
class SimSharedMemory final : public SharedMemory {
public:
    // Zeroed memory. A length that can't be mapped (0, above 1 MiB) makes an object whose map() gives nothing.
    SimSharedMemory(SimRegionMemory& regions, std::uint64_t length);
    ~SimSharedMemory() override;
    SimSharedMemory(const SimSharedMemory&) = delete;
    SimSharedMemory& operator=(const SimSharedMemory&) = delete;

    // A region with this version and slot count, all slots inactive, as a client writes it before it sends it.
    static std::shared_ptr<SimSharedMemory> hangChannel(SimRegionMemory& regions,
                                                        std::uint32_t version = QUORVIX_CHANNEL_VERSION,
                                                        std::uint32_t slotCount = QUORVIX_CHANNEL_MINIMUM_SLOTS,
                                                        std::uint64_t length = QUORVIX_CHANNEL_MINIMUM_LENGTH);

    SharedMemoryMapping map() override { return regions_.map(descriptor_); }

    std::span<std::uint8_t> bytes() { return {view_, static_cast<std::size_t>(length_)}; }
    // Precondition: at least QUORVIX_CHANNEL_MINIMUM_LENGTH bytes.
    quorvix_hang_channel& channel() { return *reinterpret_cast<quorvix_hang_channel*>(view_); }

private:
    SimRegionMemory& regions_;
    int descriptor_ = -1;
    std::uint8_t* view_ = nullptr;
    std::uint64_t length_ = 0;
};

}  // namespace quorvix::sim
