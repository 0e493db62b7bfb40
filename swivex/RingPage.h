#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace quorvix::swivex {

// A record as it lies in a page: its time, and the bytes that the event's format describes.
struct RingRecord {
    std::uint64_t timeNs = 0;
    std::span<const std::uint8_t> data;
};

// Walks the records of one ring page, oldest first. Takes any bytes: where they make no sense the page ends there, and
// damaged() says so.
//
//   32-bit head: low 5 bits the kind, upper 27 bits the time since the record before
//     1..28  data of so many 32-bit words      29  a gap: to the page's end, or of the length that follows
//     0      data, its length in the next word 30  only time: 59 bits     31  the time itself
class RingPage {
public:
    // beginNs: the time that stands in the page's head; data: its committed bytes.
    RingPage(std::uint64_t beginNs, std::span<const std::uint8_t> data) : timeNs_(beginNs), rest_(data) {}

    std::optional<RingRecord> next();
    bool damaged() const { return damaged_; }

private:
    std::optional<std::uint32_t> word(std::size_t index) const;
    std::optional<RingRecord> end(bool damaged);

    std::uint64_t timeNs_;
    std::span<const std::uint8_t> rest_;
    bool damaged_ = false;
};

}  // namespace quorvix::swivex
