#include "platform/linux/SharedMemory.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <optional>

namespace quorvix::linuxos {

namespace {

// Asked before main: a check of all regions comes here twice for each, and a local static is looked at every time.
const auto kPageBytes = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));

std::uint64_t wholePages(std::uint64_t length) { return (length + kPageBytes - 1) / kPageBytes * kPageBytes; }

// A guard page, the largest region, a guard page. Address space only: what is not mapped into it costs nothing.
std::uint64_t reservationBytes() { return MappedRegions::kMaximumRegionBytes + 2 * kPageBytes; }

std::uint8_t* reservationOf(const void* address) {
    return static_cast<std::uint8_t*>(const_cast<void*>(address)) - kPageBytes;
}

// The length of a memory that may be mapped.
std::optional<std::uint64_t> mappableLength(int descriptor) {
    // A hugetlb memfd takes the seal as well and yet faults where no huge page is free: only tmpfs will do.
    struct statfs fileSystem = {};
    if (fstatfs(descriptor, &fileSystem) != 0 || fileSystem.f_type != TMPFS_MAGIC) return std::nullopt;
    // One bit among others: some kernels add seals of their own.
    const int seals = fcntl(descriptor, F_GET_SEALS);
    if (seals < 0 || (seals & F_SEAL_SHRINK) == 0) return std::nullopt;
    const int flags = fcntl(descriptor, F_GETFL);
    if (flags < 0 || (flags & O_ACCMODE) != O_RDWR) return std::nullopt;
    struct stat status = {};
    if (fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
    if (status.st_size < 1 || static_cast<std::uint64_t>(status.st_size) > MappedRegions::kMaximumRegionBytes) {
        return std::nullopt;
    }
    return static_cast<std::uint64_t>(status.st_size);
}

}  // namespace

MappedRegions::MappedRegions(std::uint64_t maximumMappedBytes) : maximumMappedBytes_(maximumMappedBytes) {}

MappedRegions::~MappedRegions() {
    for (const auto& [address, bytes] : mappings_) munmap(reservationOf(address), reservationBytes());
}

SharedMemoryMapping MappedRegions::map(int descriptor) {
    const std::optional<std::uint64_t> length = mappableLength(descriptor);
    const std::lock_guard lock(mutex_);
    if (!length) {
        ++refusedKind_;
        return {};
    }
    if (mappedBytes_ + wholePages(*length) > maximumMappedBytes_) {
        ++refusedFull_;
        return {};
    }
    const SharedMemoryMapping mapping = place(descriptor, *length);
    if (!mapping.address) {
        ++refusedKind_;
        return {};
    }
    mappings_.emplace(mapping.address, wholePages(*length));
    mappedBytes_ += wholePages(*length);
    return mapping;
}

SharedMemoryMapping MappedRegions::place(int descriptor, std::uint64_t length) {
    void* reservation =
        mmap(nullptr, reservationBytes(), PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (reservation == MAP_FAILED) return {};
    void* inside = static_cast<std::uint8_t*>(reservation) + kPageBytes;
    // Fails where the memory is sealed against writing as well: we store into it.
    if (mmap(inside, length, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, descriptor, 0) == MAP_FAILED) {
        munmap(reservation, reservationBytes());
        return {};
    }
    return {inside, length};
}

bool MappedRegions::guarded(const void* address, Access access, void* context) noexcept {
    return guard_.guarded(reservationOf(address), reservationBytes(), access, context);
}

void MappedRegions::unmap(void* address, std::uint64_t) noexcept {
    const std::lock_guard lock(mutex_);
    const auto found = mappings_.find(address);
    if (found == mappings_.end()) return;
    mappedBytes_ -= found->second;
    mappings_.erase(found);
    munmap(reservationOf(address), reservationBytes());
}

MappedRegions::Counters MappedRegions::counters() const {
    const std::lock_guard lock(mutex_);
    return {mappings_.size(), mappedBytes_, refusedKind_, refusedFull_, RegionGuard::faults()};
}

JsonObject MappedRegions::selfCounters() const {
    const Counters now = counters();
    return {{"mappings", now.mappings},
            {"mappedBytes", now.mappedBytes},
            {"refusedKind", now.refusedKind},
            {"refusedFull", now.refusedFull},
            {"faults", now.faults}};
}

}  // namespace quorvix::linuxos
