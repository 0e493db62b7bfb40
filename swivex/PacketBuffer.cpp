#include "swivex/PacketBuffer.h"

#include <zlib.h>

#include <new>

namespace quorvix::swivex {

namespace {

// The least effort: half the time of the default and a tenth more bytes.
constexpr int kEffort = 1;

}  // namespace

void PacketBuffer::compress(std::size_t last) {
    const std::span<const std::uint8_t> all(writer_.encoded());
    if (all.size() <= kLongestPiece) {
        compressPiece(all);
    } else {
        if (last > 0) compressPiece(all.first(last));
        const auto packet = all.subspan(last);
        if (packet.size() <= kLongestPiece) {
            compressPiece(packet);
        } else {
            compressed_.insert(compressed_.end(), packet.begin(), packet.end());
        }
    }
    writer_.clear();
}

void PacketBuffer::compressPiece(std::span<const std::uint8_t> packets) {
    uLongf size = compressBound(packets.size());
    piece_.resize(size);
    // It can fail for want of memory only: the bound is the library's own.
    if (compress2(piece_.data(), &size, packets.data(), packets.size(), kEffort) != Z_OK) throw std::bad_alloc();
    PacketWriter outer;
    outer.message(packet::kPacket, [&] { outer.bytes(packet::kCompressedPackets, {piece_.data(), size}); });
    compressed_.insert(compressed_.end(), outer.encoded().begin(), outer.encoded().end());
}

}  // namespace quorvix::swivex
