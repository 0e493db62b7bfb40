#pragma once

#include <cstdint>
#include <span>
#include <string_view>

namespace quorvix::report {

using Bytes = std::span<const std::uint8_t>;

inline std::string_view textOf(Bytes bytes) { return {reinterpret_cast<const char*>(bytes.data()), bytes.size()}; }

// Takes one varint from the front. False, and nothing is taken: the bytes end inside it, or it is longer than 64 bits.
inline bool takeVarint(Bytes& bytes, std::uint64_t& value) {
    constexpr std::size_t kLongestVarint = 10;
    value = 0;
    for (std::size_t at = 0; at < bytes.size() && at < kLongestVarint; ++at) {
        value |= static_cast<std::uint64_t>(bytes[at] & 0x7f) << (7 * at);
        if ((bytes[at] & 0x80) == 0) {
            bytes = bytes.subspan(at + 1);
            return true;
        }
    }
    return false;
}

struct ProtoField {
    enum class Kind { varint, fixed64, bytes, fixed32 };
    std::uint32_t number = 0;
    Kind kind = Kind::varint;
    std::uint64_t value = 0;  // of a number
    Bytes bytes;              // of a string, a message or a packed list

    std::int64_t asSigned() const { return static_cast<std::int64_t>(value); }
    // Process and thread ids travel as 32 bits, whatever the sender wrote above them.
    std::int32_t asId() const { return static_cast<std::int32_t>(value); }
    std::string_view text() const { return textOf(bytes); }
};

// Walks the fields of one protobuf message, which is never trusted: nothing is read past its end, and what is no
// field stops the walk and is remembered. Borrows the bytes.
class ProtoFields {
public:
    explicit ProtoFields(Bytes message) : rest_(message) {}

    // False at the end, and where the message is damaged.
    bool next(ProtoField& field) {
        if (rest_.empty() || damaged_) return false;
        if (take(field)) return true;
        damaged_ = true;
        return false;
    }
    bool damaged() const { return damaged_; }

private:
    bool take(ProtoField& field) {
        constexpr std::uint64_t kHighestNumber = (1U << 29) - 1;
        std::uint64_t tag = 0;
        if (!takeVarint(rest_, tag) || tag >> 3 == 0 || tag >> 3 > kHighestNumber) return false;
        field = {.number = static_cast<std::uint32_t>(tag >> 3), .kind = {}, .value = 0, .bytes = {}};
        switch (tag & 7) {
            case 0: field.kind = ProtoField::Kind::varint; return takeVarint(rest_, field.value);
            case 1: field.kind = ProtoField::Kind::fixed64; return takeFixed(8, field.value);
            case 2: field.kind = ProtoField::Kind::bytes; return takeBytes(field.bytes);
            case 5: field.kind = ProtoField::Kind::fixed32; return takeFixed(4, field.value);
            default: return false;
        }
    }
    bool takeFixed(std::size_t size, std::uint64_t& value) {
        if (rest_.size() < size) return false;
        for (std::size_t at = 0; at < size; ++at) value |= static_cast<std::uint64_t>(rest_[at]) << (8 * at);
        rest_ = rest_.subspan(size);
        return true;
    }
    bool takeBytes(Bytes& bytes) {
        std::uint64_t size = 0;
        if (!takeVarint(rest_, size) || size > rest_.size()) return false;
        bytes = rest_.first(size);
        rest_ = rest_.subspan(size);
        return true;
    }

    Bytes rest_;
    bool damaged_ = false;
};

}  // namespace quorvix::report
