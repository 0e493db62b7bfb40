#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/MessageService.h"

namespace quorvix::linuxos {

// The wire format of the message service: one datagram, one dictionary (docs/message-protocol.md is its ABI page).
// Decoding allocates nothing, reads every byte once and gives views into the datagram; whatever it is fed, it ends in
// entries or in the reason why there are none. Thread-free: plain functions over the caller's storage.

inline constexpr std::size_t kMaximumDatagramBytes = 65536;
inline constexpr std::size_t kMaximumEntries = 64;
inline constexpr std::size_t kMaximumKeyBytes = 255;
inline constexpr std::size_t kMaximumDescriptors = 4;
inline constexpr std::size_t kHeaderBytes = 8;
inline constexpr std::array<std::uint8_t, 4> kMessageMagic = {'V', 'E', 'X', '1'};

enum class DecodeError {
    none,
    empty,
    tooLong,
    headerCut,
    badMagic,
    reservedNotZero,
    tooManyEntries,
    entryCut,
    emptyKey,
    keyNotUtf8,
    keyHasNul,
    repeatedKey,
    unknownType,
    stringHasNul,
    badBoolean,
    descriptorMissing,
    descriptorNamedTwice,
    surplusDescriptor,
    tooManyDescriptors,
    trailingBytes,
};

// What decode() found. The entries stand in the caller's storage.
struct DecodedMessage {
    DecodeError error = DecodeError::none;
    std::span<const MessageEntry> entries;
    // The key at which decoding failed, where it failed at one: the client's bytes.
    std::string_view untrustedKey;
};

using EntryStorage = std::array<MessageEntry, kMaximumEntries>;

// Decodes one datagram. `objects` stands for its descriptors, in their order (at most kMaximumDescriptors).
DecodedMessage decodeMessage(std::span<const std::uint8_t> datagram, std::span<SharedMemory* const> objects,
                             EntryStorage& storage) noexcept;

// "<undecodable message, 123 bytes: repeated key "x">". At most a few hundred bytes: the client's are escaped and cut.
std::string describeUndecodable(std::size_t bytes, DecodeError error, std::string_view untrustedKey);
// "{"command": int64 1, "name": string "main"}", texts escaped and cut.
std::string describeDictionary(std::span<const MessageEntry> entries);

// Writes datagrams. Checks nothing, so that tests can make wrong ones; a right one needs keys and counts in bounds.
class MessageEncoder {
public:
    MessageEncoder();

    MessageEncoder& int64(std::string_view key, std::int64_t value);
    MessageEncoder& uint64(std::string_view key, std::uint64_t value);
    MessageEncoder& string(std::string_view key, std::string_view text);
    MessageEncoder& boolean(std::string_view key, bool value);
    // The descriptor's index among those sent with the datagram.
    MessageEncoder& sharedMemory(std::string_view key, std::uint8_t descriptorIndex);
    // An entry whose value bytes are the caller's.
    MessageEncoder& raw(std::uint8_t type, std::string_view key, std::string_view valueBytes);

    const std::vector<std::uint8_t>& bytes() const { return bytes_; }

private:
    void begin(std::uint8_t type, std::string_view key);
    void appendLittleEndian(std::uint64_t value, std::size_t bytes);

    std::vector<std::uint8_t> bytes_;
};

}  // namespace quorvix::linuxos
