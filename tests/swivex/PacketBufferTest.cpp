#include "swivex/PacketBuffer.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/swivex/TraceReader.h"

using namespace quorvix::swivex;
using namespace quorvix::swivex::tests;

namespace {

// What readers refuse.
constexpr std::size_t kTooLong = 512'000;

// Text that zlib can do little with.
std::string noise(std::size_t size) {
    std::string text(size, '\0');
    std::uint64_t state = 88172645463325252ULL;
    for (char& c : text) {
        state ^= state << 13;
        state ^= state >> 7;
        state ^= state << 17;
        c = static_cast<char>(state);
    }
    return text;
}

// The lengths of the texts of all packets in the order of the file; expects that each piece is one that readers take.
std::vector<std::size_t> written(const std::vector<std::size_t>& sizes) {
    PacketBuffer file(PacketBuffer::Form::compressed);
    for (const std::size_t size : sizes) {
        file.packet(Sequence::frame, 0, 1, [&](PacketWriter& writer) { writer.text(100, noise(size)); });
    }
    file.finish();
    EXPECT_EQ(file.count(), sizes.size());
    const std::string bytes(file.encoded().begin(), file.encoded().end());
    for (const Message& packet : Message(bytes).messages(1)) {
        if (!packet.has(50)) continue;
        EXPECT_LT(packet.text(50).size(), kTooLong);
        EXPECT_LT(inflated(packet.text(50)).size(), kTooLong);
    }
    std::vector<std::size_t> found;
    for (const Message& packet : packetsOf(bytes)) found.push_back(packet.text(100).size());
    return found;
}

}  // namespace

TEST(PacketBuffer, CompressedPiecesStayBelowWhatReadersTake) {
    for (const std::vector<std::size_t>& sizes : {std::vector<std::size_t>{1, 2, 3},
                                                  {260'000, 5},
                                                  {250'000, 300'000, 7},
                                                  {5, 600'000, 6},
                                                  {600'000},
                                                  {1'100'000, 1'100'000, 9},
                                                  {499'000, 501'000, 3},
                                                  {260'000, 260'000, 260'000}}) {
        EXPECT_EQ(written(sizes), sizes);
    }
}

TEST(PacketBuffer, PacketThatIsTooLongForAPieceIsNotCompressed) {
    PacketBuffer file(PacketBuffer::Form::compressed);
    file.packet(Sequence::frame, 0, 1, [&](PacketWriter& writer) { writer.text(100, std::string(600'000, 'x')); });
    file.finish();
    const std::string bytes(file.encoded().begin(), file.encoded().end());
    EXPECT_FALSE(Message(bytes).message(1).has(50));
}
