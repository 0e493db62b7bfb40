#include "swivex/PacketWriter.h"

#include <array>

namespace quorvix::swivex {

void appendVarint(std::vector<std::uint8_t>& bytes, std::uint64_t v) {
    while (v >= 0x80) {
        bytes.push_back(static_cast<std::uint8_t>(v | 0x80));
        v >>= 7;
    }
    bytes.push_back(static_cast<std::uint8_t>(v));
}

void PacketWriter::tag(std::uint32_t field, WireType type) {
    appendVarint(buffer_, (field << 3) | static_cast<std::uint32_t>(type));
}

void PacketWriter::number(std::uint32_t field, std::uint64_t value) {
    tag(field, WireType::varint);
    appendVarint(buffer_, value);
}

void PacketWriter::fixed64(std::uint32_t field, std::uint64_t value) {
    tag(field, WireType::fixed64);
    for (unsigned shift = 0; shift < 64; shift += 8) buffer_.push_back(static_cast<std::uint8_t>(value >> shift));
}

void PacketWriter::bytes(std::uint32_t field, std::span<const std::uint8_t> value) {
    tag(field, WireType::lengthDelimited);
    appendVarint(buffer_, value.size());
    append(value);
}

void PacketWriter::text(std::uint32_t field, std::string_view value) {
    bytes(field, {reinterpret_cast<const std::uint8_t*>(value.data()), value.size()});
}

std::size_t PacketWriter::beginMessage(std::uint32_t field) {
    tag(field, WireType::lengthDelimited);
    buffer_.push_back(0);  // most messages are shorter than 128 bytes, and their length then fits here
    return buffer_.size();
}

void PacketWriter::endMessage(std::size_t begin) {
    std::uint64_t length = buffer_.size() - begin;
    std::array<std::uint8_t, 10> digits{};
    std::size_t count = 0;
    while (length >= 0x80) {
        digits[count++] = static_cast<std::uint8_t>(length | 0x80);
        length >>= 7;
    }
    digits[count++] = static_cast<std::uint8_t>(length);
    const auto place = buffer_.begin() + static_cast<std::ptrdiff_t>(begin);
    *(place - 1) = digits[0];
    if (count > 1) buffer_.insert(place, digits.begin() + 1, digits.begin() + static_cast<std::ptrdiff_t>(count));
}

}  // namespace quorvix::swivex
