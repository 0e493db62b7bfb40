#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "swivex/Descriptor.h"
#include "swivex/EventDecoder.h"
#include "swivex/Ring.h"

namespace quorvix::swivex {

// Memory straight from the kernel, given back whole. Owns one mapping, or none.
class Mapping {
public:
    Mapping() = default;
    Mapping(void* address, std::size_t length) : address_(static_cast<std::uint8_t*>(address)), length_(length) {}
    Mapping(Mapping&& other) noexcept;
    Mapping& operator=(Mapping&& other) noexcept;
    ~Mapping();

    explicit operator bool() const { return address_ != nullptr; }
    std::uint8_t* data() const { return address_; }
    std::size_t size() const { return length_; }

private:
    std::uint8_t* address_ = nullptr;
    std::size_t length_ = 0;
};

// The rings as the kernel keeps them, mapped into this process (kernel 6.10 and later). Nothing is stopped meanwhile: a
// page that the kernel began to overwrite while it was copied shows that in its head, and is left out and counted.
class MappedRing final : public Ring {
public:
    // A problem where this kernel can't map its rings.
    static Outcome<std::unique_ptr<Ring>> open(const TraceInstance& instance);

    std::string_view kind() const override { return "mapped"; }
    std::vector<unsigned> cpus() const override { return cpus_; }
    Outcome<RingHolding> load(unsigned cpu, std::uint64_t fromNs, const Deadline& deadline) override;
    bool visit(std::uint64_t fromNs, std::uint64_t toNs, const Deadline& deadline, const Visit& event) override;
    void visitEarlier(std::uint64_t beforeNs, const Deadline& deadline, const Visit& event,
                      const std::function<bool()>& endOfPiece) override;
    // Bytes of the pages that the last load copied.
    std::size_t copiedBytes() const { return copied_; }

private:
    // A page of the mapped ring as its head told when it was looked at.
    struct Page {
        std::uint64_t timeNs = 0;
        std::uint64_t commit = 0;  // bytes of data, marks taken off
        std::uint32_t index = 0;   // in the mapping
    };
    // A page whose data was copied.
    struct Copied {
        std::uint64_t timeNs = 0;
        std::size_t offset = 0;  // in the copy
        std::size_t size = 0;
    };

    MappedRing(TraceInstance instance, PageFormat format) : instance_(std::move(instance)), format_(format) {}

    Outcome<bool> map(unsigned cpu);
    void listPages();
    std::uint64_t commitOf(const std::uint8_t* page) const;
    // Copies a page's data to `to`. False: it was overwritten meanwhile.
    bool copyPage(const Page& page, std::uint8_t* to) const;
    void visitPage(std::uint64_t timeNs, std::span<const std::uint8_t> data, const Visit& event, std::uint64_t fromNs,
                   std::uint64_t toNs) const;

    const TraceInstance instance_;
    const PageFormat format_;
    EventDecoder decoder_;
    std::vector<unsigned> cpus_;

    // Of the CPU that is loaded.
    Descriptor file_;
    Mapping meta_;
    Mapping ring_;
    std::size_t pageSize_ = 0;
    std::vector<Page> pages_;      // oldest first, those that are not empty
    std::size_t firstCopied_ = 0;  // index in pages_
    std::vector<Copied> copies_;   // oldest first
    Mapping copy_;
    std::size_t copied_ = 0;
};

}  // namespace quorvix::swivex
