#include "swivex/RingPage.h"

#include <cstring>

namespace quorvix::swivex {

namespace {

constexpr std::size_t kWord = 4;
constexpr std::uint32_t kGap = 29;
constexpr std::uint32_t kTimeExtend = 30;
constexpr std::uint32_t kAbsoluteTime = 31;
// An absolute time has no room for the uppermost bits; they are those of the time before.
constexpr unsigned kTimeBits = 59;
constexpr std::uint64_t kUpperTime = ~((std::uint64_t{1} << kTimeBits) - 1);

}  // namespace

std::optional<std::uint32_t> RingPage::word(std::size_t index) const {
    if (rest_.size() < (index + 1) * kWord) return std::nullopt;
    std::uint32_t value = 0;
    std::memcpy(&value, rest_.data() + index * kWord, kWord);
    return value;
}

std::optional<RingRecord> RingPage::end(bool damaged) {
    damaged_ = damaged_ || damaged;
    rest_ = {};
    return std::nullopt;
}

std::optional<RingRecord> RingPage::next() {
    for (;;) {
        if (rest_.empty()) return std::nullopt;
        const auto head = word(0);
        if (!head) return end(true);
        const std::uint32_t kind = *head & 31;
        const std::uint32_t delta = *head >> 5;

        if (kind == kGap && delta == 0) return end(false);
        if (kind == kTimeExtend || kind == kAbsoluteTime) {
            const auto upper = word(1);
            if (!upper) return end(true);
            const std::uint64_t time = (std::uint64_t{*upper} << 27) + delta;
            if (kind == kTimeExtend) {
                timeNs_ += time;
            } else {
                std::uint64_t absolute = time | (timeNs_ & kUpperTime);
                if ((timeNs_ & kUpperTime) != 0 && absolute < timeNs_) absolute += std::uint64_t{1} << kTimeBits;
                timeNs_ = absolute;
            }
            rest_ = rest_.subspan(2 * kWord);
            continue;
        }

        std::size_t begin = kWord;
        std::size_t length = std::size_t{kind} * kWord;
        if (kind == 0 || kind == kGap) {
            const auto given = word(1);
            // The length counts its own word.
            if (!given || *given < kWord) return end(true);
            begin = 2 * kWord;
            length = *given - kWord;
        }
        const std::size_t padded = (length + kWord - 1) / kWord * kWord;
        if (padded > rest_.size() - begin) return end(true);
        // A gap of 1 ns stands for a record that was taken back; it had no time of its own.
        if (kind != kGap || delta != 1) timeNs_ += delta;
        const RingRecord record{timeNs_, rest_.subspan(begin, length)};
        rest_ = rest_.subspan(begin + padded);
        if (kind != kGap) return record;
    }
}

}  // namespace quorvix::swivex
