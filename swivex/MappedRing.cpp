#include "swivex/MappedRing.h"

#include <fcntl.h>
#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>

#include "swivex/RingPage.h"
#include "swivex/SmallFile.h"

namespace quorvix::swivex {

namespace {

// The kernel's description of a mapped ring, at the mapping's beginning. Debian 12's headers are older than it.
struct BufferMeta {
    std::uint32_t metaPageSize;
    std::uint32_t metaStructLength;
    std::uint32_t pageSize;
    std::uint32_t pageCount;
    struct {
        std::uint64_t lostEvents;
        std::uint32_t id;
        std::uint32_t read;
    } reader;
};
static_assert(offsetof(BufferMeta, reader) == 16);

constexpr std::size_t kMetaBytes = 4096;
// The low bits are the length, the upper ones marks.
constexpr std::uint64_t kCommitLength = (std::uint64_t{1} << 20) - 1;

Mapping mapShared(int file, std::size_t length, std::size_t offset) {
    void* const address = ::mmap(nullptr, length, PROT_READ, MAP_SHARED, file, static_cast<off_t>(offset));
    return address == MAP_FAILED ? Mapping() : Mapping(address, length);
}

std::uint64_t timeOf(const std::uint8_t* page) {
    return __atomic_load_n(reinterpret_cast<const std::uint64_t*>(page), __ATOMIC_ACQUIRE);
}

Mapping mapMemory(std::size_t length) {
    void* const address = ::mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (address == MAP_FAILED) return {};
    // Ignored: it saves page faults where the kernel can do it.
    ::madvise(address, length, MADV_HUGEPAGE);
    return {address, length};
}

}  // namespace

Mapping::Mapping(Mapping&& other) noexcept
    : address_(std::exchange(other.address_, nullptr)), length_(std::exchange(other.length_, 0)) {}

Mapping& Mapping::operator=(Mapping&& other) noexcept {
    if (this != &other) {
        if (address_) ::munmap(address_, length_);
        address_ = std::exchange(other.address_, nullptr);
        length_ = std::exchange(other.length_, 0);
    }
    return *this;
}

Mapping::~Mapping() {
    if (address_) ::munmap(address_, length_);
}

Outcome<std::unique_ptr<Ring>> MappedRing::open(const TraceInstance& instance) {
    const auto header = readSmallFile(instance.root + "/events/header_page");
    if (!header) return Problem{header.problem()};
    const auto format = parsePageFormat(*header);
    if (!format) return Problem{"the layout of the kernel's ring pages is not known"};
    std::unique_ptr<MappedRing> ring(new MappedRing(instance, *format));
    for (EventFormat& event : instance.formats()) ring->decoder_.add(std::move(event));
    if (!ring->decoder_.knows("sched_switch")) return Problem{"the kernel does not tell the format of sched_switch"};
    ring->cpus_ = instance.cpus();
    if (ring->cpus_.empty()) return Problem{"the instance has no rings"};
    if (auto mapped = ring->map(ring->cpus_.front()); !mapped) return Problem{mapped.problem()};
    return std::unique_ptr<Ring>(std::move(ring));
}

Outcome<bool> MappedRing::map(unsigned cpu) {
    ring_ = {};
    meta_ = {};
    const std::string path = instance_.cpuFile(cpu, "trace_pipe_raw");
    file_ = Descriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!file_) return Problem{errorText(path, errno)};
    meta_ = mapShared(file_.get(), kMetaBytes, 0);
    if (!meta_) return Problem{errorText(path + " can't be mapped", errno)};
    BufferMeta meta{};
    std::memcpy(&meta, meta_.data(), sizeof meta);
    const bool plausible = meta.metaPageSize >= kMetaBytes && meta.metaPageSize <= (1U << 20) && meta.pageCount > 0 &&
                           meta.pageSize > format_.dataOffset && meta.pageSize <= (1U << 20) &&
                           meta.pageSize % 4096 == 0 && meta.pageCount <= (1U << 24);
    if (!plausible) return Problem{path + ": its description makes no sense"};
    pageSize_ = meta.pageSize;
    ring_ = mapShared(file_.get(), pageSize_ * meta.pageCount, meta.metaPageSize);
    if (!ring_) return Problem{errorText(path + " can't be mapped", errno)};
    return true;
}

std::uint64_t MappedRing::commitOf(const std::uint8_t* page) const {
    const std::uint8_t* const commit = page + format_.commitOffset;
    if (format_.commitSize == 4)
        return __atomic_load_n(reinterpret_cast<const std::uint32_t*>(commit), __ATOMIC_ACQUIRE);
    return __atomic_load_n(reinterpret_cast<const std::uint64_t*>(commit), __ATOMIC_ACQUIRE);
}

void MappedRing::listPages() {
    pages_.clear();
    const std::size_t count = ring_.size() / pageSize_;
    pages_.reserve(count);
    const std::size_t room = pageSize_ - format_.dataOffset;
    for (std::size_t index = 0; index < count; ++index) {
        const std::uint8_t* const at = ring_.data() + index * pageSize_;
        const std::uint64_t time = timeOf(at);
        const std::uint64_t commit = commitOf(at) & kCommitLength;
        // Another time by now: taken into use again just then.
        if (commit == 0 || commit > room || time == 0 || timeOf(at) != time) continue;
        pages_.push_back({time, commit, static_cast<std::uint32_t>(index)});
    }
    // They lie as they were first mapped, in a ring whose beginning moves.
    std::ranges::sort(pages_, {}, &Page::timeNs);
}

bool MappedRing::copyPage(const Page& page, std::uint8_t* to) const {
    const std::uint8_t* const from = ring_.data() + page.index * pageSize_;
    std::memcpy(to, from + format_.dataOffset, page.commit);
    std::atomic_thread_fence(std::memory_order_acquire);
    // A page that is taken into use again loses its length first and gets a new time then.
    return timeOf(from) == page.timeNs && (commitOf(from) & kCommitLength) >= page.commit;
}

Outcome<RingHolding> MappedRing::load(unsigned cpu, std::uint64_t fromNs, const Deadline& deadline) {
    pages_.clear();
    copies_.clear();
    copied_ = 0;
    if (auto mapped = map(cpu); !mapped) {
        // A CPU that could be there and never came up has files and no ring.
        if (instance_.count(cpu, "entries") == 0 && instance_.count(cpu, "overrun") == 0) return RingHolding{};
        return Problem{mapped.problem()};
    }
    listPages();
    RingHolding holding;
    if (pages_.empty()) return holding;

    // The page in which fromNs lies begins before it.
    const auto later = std::ranges::upper_bound(pages_, fromNs, {}, &Page::timeNs);
    firstCopied_ = static_cast<std::size_t>(later - pages_.begin());
    if (firstCopied_ > 0) --firstCopied_;

    std::size_t wanted = 0;
    for (std::size_t index = firstCopied_; index < pages_.size(); ++index) wanted += pages_[index].commit;
    if (copy_.size() < wanted) copy_ = mapMemory(wanted);
    if (!copy_) return Problem{errorText("memory for a copy of the ring", errno)};
    copies_.reserve(pages_.size() - firstCopied_);
    for (std::size_t index = firstCopied_; index < pages_.size(); ++index) {
        if (index % 64 == 0 && deadline.passed()) {
            holding.cutShort = true;
            break;
        }
        const Page& page = pages_[index];
        if (!copyPage(page, copy_.data() + copied_)) {
            ++holding.lostWhileRead;
            continue;
        }
        copies_.push_back({page.timeNs, copied_, page.commit});
        copied_ += page.commit;
    }
    holding.empty = false;
    // What was overwritten while it was copied was the oldest.
    const bool oldestGone = firstCopied_ == 0 && !copies_.empty();
    holding.oldestNs = oldestGone ? copies_.front().timeNs : pages_.front().timeNs;
    holding.newestNs = copies_.empty() ? pages_.back().timeNs : copies_.back().timeNs;
    bool first = true;
    std::vector<std::uint8_t> scratch(pageSize_);
    if (copyPage(pages_.front(), scratch.data())) {
        visitPage(
            pages_.front().timeNs, {scratch.data(), pages_.front().commit},
            [&](const Event& event) {
                if (first) holding.armedMark = event.kind == EventKind::print && event.text.starts_with(kArmedMark);
                first = false;
            },
            0, UINT64_MAX);
    }
    return holding;
}

void MappedRing::visitPage(std::uint64_t timeNs, std::span<const std::uint8_t> data, const Visit& visit,
                           std::uint64_t fromNs, std::uint64_t toNs) const {
    RingPage page(timeNs, data);
    Event event;
    while (const auto record = page.next()) {
        if (record->timeNs > toNs) return;
        if (record->timeNs >= fromNs && decoder_.decode(record->timeNs, record->data, event)) visit(event);
    }
}

bool MappedRing::visit(std::uint64_t fromNs, std::uint64_t toNs, const Deadline& deadline, const Visit& event) {
    for (const Copied& page : copies_) {
        if (page.timeNs > toNs) return true;
        if (deadline.passed()) return false;
        visitPage(page.timeNs, {copy_.data() + page.offset, page.size}, event, fromNs, toNs);
    }
    return true;
}

void MappedRing::visitEarlier(std::uint64_t beforeNs, const Deadline& deadline, const Visit& event,
                              const std::function<bool()>& endOfPiece) {
    if (beforeNs == 0) return;
    std::vector<std::uint8_t> scratch(pageSize_);
    for (auto page = copies_.rbegin(); page != copies_.rend(); ++page) {
        if (page->timeNs >= beforeNs) continue;
        if (deadline.passed()) return;
        visitPage(page->timeNs, {copy_.data() + page->offset, page->size}, event, 0, beforeNs - 1);
        if (endOfPiece()) return;
    }
    for (std::size_t index = std::min(firstCopied_, pages_.size()); index-- > 0;) {
        if (deadline.passed()) return;
        // One that is overwritten meanwhile is the oldest: nothing older is left.
        if (!copyPage(pages_[index], scratch.data())) return;
        visitPage(pages_[index].timeNs, {scratch.data(), pages_[index].commit}, event, 0, beforeNs - 1);
        if (endOfPiece()) return;
    }
}

}  // namespace quorvix::swivex
