#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <set>
#include <span>
#include <string_view>

#include "platform/linux/MessageCodec.h"
#include "platform/linux/SharedMemory.h"
#include "platform/linux/Utf8.h"

namespace quorvix::fuzz {

namespace message_codec {

inline void require(bool holds) {
    if (!holds) std::abort();
}

// What decoded must encode to the very bytes it came from: there is one way only to write a dictionary.
inline void requireSameBytes(std::span<const std::uint8_t> datagram, std::span<const MessageEntry> entries,
                             std::span<SharedMemory* const> objects) {
    linuxos::MessageEncoder encoder;
    for (const MessageEntry& entry : entries) {
        switch (entry.type) {
            case MessageValueType::int64: encoder.int64(entry.key, entry.signedValue); break;
            case MessageValueType::uint64: encoder.uint64(entry.key, entry.unsignedValue); break;
            case MessageValueType::string: encoder.string(entry.key, entry.text); break;
            case MessageValueType::boolean: encoder.boolean(entry.key, entry.booleanValue); break;
            case MessageValueType::sharedMemory: {
                std::uint8_t index = 0;
                while (index < objects.size() && objects[index] != entry.sharedMemory) ++index;
                require(index < objects.size());
                encoder.sharedMemory(entry.key, index);
                break;
            }
        }
    }
    require(std::equal(datagram.begin(), datagram.end(), encoder.bytes().begin(), encoder.bytes().end()));
}

inline void requireEntriesKeepRules(std::span<const MessageEntry> entries) {
    std::set<std::string_view> keys;
    for (const MessageEntry& entry : entries) {
        require(!entry.key.empty() && entry.key.size() <= linuxos::kMaximumKeyBytes);
        require(linuxos::isUtf8(entry.key));
        require(entry.key.find('\0') == std::string_view::npos && entry.text.find('\0') == std::string_view::npos);
        require(keys.insert(entry.key).second);
    }
}

}  // namespace message_codec

// Decodes bytes as a datagram and holds what comes out against the rules; aborts where a rule is broken. The first byte
// gives the number of descriptors that came along (0 to 4), the rest is the datagram. Whether it decoded.
inline bool messageCodecRulesHold(const std::uint8_t* data, std::size_t size) {
    using namespace message_codec;
    if (size == 0) return false;
    std::array<linuxos::DescriptorMemory, linuxos::kMaximumDescriptors> memories;
    std::array<SharedMemory*, linuxos::kMaximumDescriptors> pointers{};
    for (std::size_t i = 0; i < memories.size(); ++i) pointers[i] = &memories[i];
    const auto objects = std::span<SharedMemory* const>(pointers).first(data[0] % (linuxos::kMaximumDescriptors + 1));
    const std::span<const std::uint8_t> datagram(data + 1, size - 1);

    linuxos::EntryStorage storage;
    const linuxos::DecodedMessage decoded = linuxos::decodeMessage(datagram, objects, storage);
    if (decoded.error != linuxos::DecodeError::none) {
        require(decoded.entries.empty());
        require(linuxos::describeUndecodable(datagram.size(), decoded.error, decoded.untrustedKey).size() < 400);
        return false;
    }
    require(decoded.entries.size() <= linuxos::kMaximumEntries);
    requireEntriesKeepRules(decoded.entries);
    requireSameBytes(datagram, decoded.entries, objects);
    require(!linuxos::describeDictionary(decoded.entries).empty());
    return true;
}

}  // namespace quorvix::fuzz
