#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace quorvix::swivex {

// Appends v in base 128, low bits first.
void appendVarint(std::vector<std::uint8_t>& bytes, std::uint64_t v);

// Encodes protobuf fields, one after the other, into one buffer that grows. A message is written by a function that
// writes its fields; its length is put in front of it afterwards, so that no message is kept twice.
//
// Values are always written, zero included: a reader of this format takes an absent number for "unknown".
class PacketWriter {
public:
    void number(std::uint32_t field, std::uint64_t value);
    // Negative numbers take ten bytes, as int32 and int64 fields want them.
    void signedNumber(std::uint32_t field, std::int64_t value) { number(field, static_cast<std::uint64_t>(value)); }
    void fixed64(std::uint32_t field, std::uint64_t value);
    void bytes(std::uint32_t field, std::span<const std::uint8_t> value);
    void text(std::uint32_t field, std::string_view value);

    template <class Body>
    void message(std::uint32_t field, Body&& body) {
        const std::size_t at = beginMessage(field);
        body();
        endMessage(at);
    }
    // The same for who can't write the message in one function. Messages end in the reverse order of their beginning.
    std::size_t beginMessage(std::uint32_t field);
    void endMessage(std::size_t begin);

    // Fields that were encoded elsewhere.
    void append(std::span<const std::uint8_t> encoded) {
        buffer_.insert(buffer_.end(), encoded.begin(), encoded.end());
    }

    const std::vector<std::uint8_t>& encoded() const { return buffer_; }
    std::size_t size() const { return buffer_.size(); }
    // Keeps the memory.
    void clear() { buffer_.clear(); }

private:
    enum class WireType : std::uint32_t { varint = 0, fixed64 = 1, lengthDelimited = 2 };
    void tag(std::uint32_t field, WireType type);

    std::vector<std::uint8_t> buffer_;
};

}  // namespace quorvix::swivex
