#include "platform/sim/SimSharedMemory.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace quorvix::sim {

SharedMemoryMapping SimRegionMemory::map(int descriptor) {
    const SharedMemoryMapping mapping = callFaults_.take("map") ? SharedMemoryMapping{} : regions_.map(descriptor);
    if (onMap) onMap(mapping);
    if (!mapping.address) return {};
    ++mapCount_;
    lastMapping_ = mapping;
    records_[mapping.address] = {mapping.length, 0, true};
    return mapping;
}

bool SimRegionMemory::guarded(const void* address, Access access, void* context) noexcept {
    ++guardedCalls_;
    const bool planned = callFaults_.take("guarded").has_value();
    const bool chosen = address == faultAt_;
    if (chosen) faultAt_ = nullptr;
    const bool survived = !planned && !chosen && regions_.guarded(address, access, context);
    if (!survived) ++faults_;
    return survived;
}

void SimRegionMemory::unmap(void* address, std::uint64_t length) noexcept {
    ++unmapCount_;
    Record& record = records_[address];
    ++record.unmaps;
    if (!record.live) {
        ++surplusUnmaps_;
        return;
    }
    if (record.length != length) ++wrongLengthUnmaps_;
    record.live = false;
    regions_.unmap(address, length);
}

std::uint64_t SimRegionMemory::unmapCount(const void* address) const {
    const auto found = records_.find(address);
    return found == records_.end() ? 0 : found->second.unmaps;
}

SimSharedMemory::SimSharedMemory(SimRegionMemory& regions, std::uint64_t length) : regions_(regions), length_(length) {
    descriptor_ = memfd_create("simulated client", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (descriptor_ < 0 || ftruncate(descriptor_, static_cast<off_t>(length)) != 0) return;
    fcntl(descriptor_, F_ADD_SEALS, F_SEAL_SHRINK);
    if (length == 0) return;
    void* view = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor_, 0);
    if (view != MAP_FAILED) view_ = static_cast<std::uint8_t*>(view);
}

SimSharedMemory::~SimSharedMemory() {
    if (view_) munmap(view_, length_);
    if (descriptor_ >= 0) close(descriptor_);
}

std::shared_ptr<SimSharedMemory> SimSharedMemory::hangChannel(SimRegionMemory& regions, std::uint32_t version,
                                                              std::uint32_t slotCount, std::uint64_t length) {
    auto memory = std::make_shared<SimSharedMemory>(regions, length);
    if (!memory->view_ || length < 8) return memory;
    // Filled up to the region's end, however short or long it is; the slot count may lie about that.
    auto& channel = memory->channel();
    channel.version = version;
    channel.slotCount = slotCount;
    for (std::uint64_t offset = 8; offset + sizeof(quorvix_hang_slot) <= length; offset += sizeof(quorvix_hang_slot)) {
        reinterpret_cast<quorvix_hang_slot*>(memory->view_ + offset)->inactive = 1;
    }
    return memory;
}

}  // namespace quorvix::sim
