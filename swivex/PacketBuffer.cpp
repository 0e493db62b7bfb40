#include "swivex/PacketBuffer.h"

#include <zlib.h>

#include <new>

namespace quorvix::swivex {

namespace {

// The least effort: half the time of the default and a tenth more bytes.
constexpr int kEffort = 1;

}  // namespace

void PacketBuffer::compress() {
    uLongf size = compressBound(writer_.size());
    piece_.resize(size);
    // It can fail for want of memory only: the bound is the library's own.
    if (compress2(piece_.data(), &size, writer_.encoded().data(), writer_.size(), kEffort) != Z_OK) {
        throw std::bad_alloc();
    }
    PacketWriter outer;
    outer.message(packet::kPacket, [&] { outer.bytes(packet::kCompressedPackets, {piece_.data(), size}); });
    compressed_.insert(compressed_.end(), outer.encoded().begin(), outer.encoded().end());
    writer_.clear();
}

}  // namespace quorvix::swivex
