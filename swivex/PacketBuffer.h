#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "swivex/PacketWriter.h"

namespace quorvix::swivex {

// The separate streams of a trace file. Within one, order and interned names are kept.
enum class Sequence : std::uint64_t { frame = 1, processes = 2, events = 3, tracks = 4, stacks = 5, figures = 6 };

// Field numbers that every packet uses.
namespace packet {
inline constexpr std::uint32_t kPacket = 1;
inline constexpr std::uint32_t kTimestamp = 8;
inline constexpr std::uint32_t kSequence = 10;
inline constexpr std::uint32_t kSequenceFlags = 13;
inline constexpr std::uint32_t kCompressedPackets = 50;
inline constexpr std::uint32_t kTimestampClock = 58;
inline constexpr std::uint64_t kMonotonicClock = 3;
inline constexpr std::uint64_t kStateCleared = 1;
inline constexpr std::uint64_t kNeedsState = 2;
}  // namespace packet

// A run of packets of a trace file, as bytes. A compressing one keeps its packets deflated, in pieces that every reader
// takes; its memory is then that of the result and one piece.
class PacketBuffer {
public:
    enum class Form { plain, compressed };

    explicit PacketBuffer(Form form) : form_(form) {}

    // One packet of a sequence, at a time in CLOCK_MONOTONIC ns. The body writes the packet's own fields.
    template <class Body>
    void packet(Sequence sequence, std::uint64_t flags, std::uint64_t timeNs, Body&& body) {
        const std::size_t begin = writer_.size();
        writer_.message(packet::kPacket, [&] {
            writer_.number(packet::kTimestamp, timeNs);
            writer_.number(packet::kTimestampClock, packet::kMonotonicClock);
            writer_.number(packet::kSequence, static_cast<std::uint64_t>(sequence));
            if (flags != 0) writer_.number(packet::kSequenceFlags, flags);
            body(writer_);
        });
        ++count_;
        if (form_ == Form::compressed && writer_.size() >= kPiece) compress(begin);
    }

    // Compresses what is left. To be called once, after the last packet.
    void finish() {
        if (form_ == Form::compressed && writer_.size() > 0) compress(0);
    }
    // Precondition: finished.
    const std::vector<std::uint8_t>& encoded() const { return form_ == Form::plain ? writer_.encoded() : compressed_; }
    // Packets put in.
    std::uint64_t count() const { return count_; }

private:
    // Packets are compressed by so much.
    static constexpr std::size_t kPiece = std::size_t{256} << 10;
    // Readers refuse pieces of 512 KB. So much fits however badly it compresses; a packet that is longer by itself is
    // left as it is.
    static constexpr std::size_t kLongestPiece = 500'000;

    // `last` is where the last packet begins.
    void compress(std::size_t last);
    void compressPiece(std::span<const std::uint8_t> packets);

    const Form form_;
    PacketWriter writer_;
    std::vector<std::uint8_t> compressed_;
    std::vector<std::uint8_t> piece_;
    std::uint64_t count_ = 0;
};

}  // namespace quorvix::swivex
