#include "platform/linux/MessageCodec.h"

#include <cstdio>
#include <cstring>

#include "platform/linux/Utf8.h"

namespace quorvix::linuxos {

namespace {

// How much of a client's text a description shows.
constexpr std::size_t kShownCharacters = 256;

// Reads forward through the datagram; every read says whether it was all there.
class Reader {
public:
    explicit Reader(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}

    bool take(std::size_t count, std::span<const std::uint8_t>& out) {
        if (bytes_.size() - at_ < count) return false;
        out = bytes_.subspan(at_, count);
        at_ += count;
        return true;
    }
    bool unsignedNumber(std::size_t bytes, std::uint64_t& out) {
        std::span<const std::uint8_t> taken;
        if (!take(bytes, taken)) return false;
        out = 0;
        for (std::size_t i = 0; i < bytes; ++i) out |= std::uint64_t{taken[i]} << (8 * i);
        return true;
    }
    bool text(std::size_t count, std::string_view& out) {
        std::span<const std::uint8_t> taken;
        if (!take(count, taken)) return false;
        out = std::string_view(reinterpret_cast<const char*>(taken.data()), count);
        return true;
    }
    bool atEnd() const { return at_ == bytes_.size(); }

private:
    std::span<const std::uint8_t> bytes_;
    std::size_t at_ = 0;
};

bool hasNul(std::string_view text) { return !text.empty() && std::memchr(text.data(), 0, text.size()) != nullptr; }

DecodeError decodeKey(Reader& reader, std::string_view& key) {
    std::uint64_t length = 0;
    if (!reader.unsignedNumber(1, length)) return DecodeError::entryCut;
    if (length == 0) return DecodeError::emptyKey;
    if (!reader.text(static_cast<std::size_t>(length), key)) return DecodeError::entryCut;
    if (hasNul(key)) return DecodeError::keyHasNul;
    return isUtf8(key) ? DecodeError::none : DecodeError::keyNotUtf8;
}

// Which descriptors were named so far: every one must be, once.
struct DescriptorUse {
    std::span<SharedMemory* const> objects;
    std::uint32_t named = 0;
};

DecodeError decodeValue(Reader& reader, std::uint64_t type, DescriptorUse& descriptors, MessageEntry& entry) {
    std::uint64_t number = 0;
    switch (type) {
        case static_cast<std::uint64_t>(MessageValueType::int64):
            if (!reader.unsignedNumber(8, number)) return DecodeError::entryCut;
            entry.signedValue = static_cast<std::int64_t>(number);
            break;
        case static_cast<std::uint64_t>(MessageValueType::uint64):
            if (!reader.unsignedNumber(8, number)) return DecodeError::entryCut;
            entry.unsignedValue = number;
            break;
        case static_cast<std::uint64_t>(MessageValueType::string):
            if (!reader.unsignedNumber(4, number)) return DecodeError::entryCut;
            if (!reader.text(static_cast<std::size_t>(number), entry.text)) return DecodeError::entryCut;
            if (hasNul(entry.text)) return DecodeError::stringHasNul;
            break;
        case static_cast<std::uint64_t>(MessageValueType::boolean):
            if (!reader.unsignedNumber(1, number)) return DecodeError::entryCut;
            if (number > 1) return DecodeError::badBoolean;
            entry.booleanValue = number == 1;
            break;
        case static_cast<std::uint64_t>(MessageValueType::sharedMemory):
            if (!reader.unsignedNumber(1, number)) return DecodeError::entryCut;
            if (number >= descriptors.objects.size()) return DecodeError::descriptorMissing;
            if (descriptors.named & (1u << number)) return DecodeError::descriptorNamedTwice;
            descriptors.named |= 1u << number;
            entry.sharedMemory = descriptors.objects[static_cast<std::size_t>(number)];
            break;
        default: return DecodeError::unknownType;
    }
    entry.type = static_cast<MessageValueType>(type);
    return DecodeError::none;
}

// At most 64 entries, so comparing each with those before it is bounded; lengths differ first as a rule.
bool repeats(std::span<const MessageEntry> before, std::string_view key) {
    for (const MessageEntry& entry : before) {
        if (entry.key == key) return true;
    }
    return false;
}

DecodeError decodeHeader(Reader& reader, std::size_t& count) {
    std::span<const std::uint8_t> magic;
    std::uint64_t entries = 0;
    std::uint64_t reserved = 0;
    if (!reader.take(kMessageMagic.size(), magic) || !reader.unsignedNumber(2, entries) ||
        !reader.unsignedNumber(2, reserved)) {
        return DecodeError::headerCut;
    }
    if (std::memcmp(magic.data(), kMessageMagic.data(), kMessageMagic.size()) != 0) return DecodeError::badMagic;
    if (reserved != 0) return DecodeError::reservedNotZero;
    if (entries > kMaximumEntries) return DecodeError::tooManyEntries;
    count = static_cast<std::size_t>(entries);
    return DecodeError::none;
}

std::string_view reasonText(DecodeError error) {
    switch (error) {
        case DecodeError::none: return "no error";
        case DecodeError::empty: return "empty";
        case DecodeError::tooLong: return "longer than 65536 bytes";
        case DecodeError::headerCut: return "header cut short";
        case DecodeError::badMagic: return "does not begin with VEX1";
        case DecodeError::reservedNotZero: return "reserved field is not zero";
        case DecodeError::tooManyEntries: return "more than 64 entries";
        case DecodeError::entryCut: return "entry cut short";
        case DecodeError::emptyKey: return "empty key";
        case DecodeError::keyNotUtf8: return "key is not UTF-8";
        case DecodeError::keyHasNul: return "NUL in key";
        case DecodeError::repeatedKey: return "repeated key";
        case DecodeError::unknownType: return "unknown type of key";
        case DecodeError::stringHasNul: return "NUL in string of key";
        case DecodeError::badBoolean: return "boolean is neither 0 nor 1 of key";
        case DecodeError::descriptorMissing: return "descriptor missing for key";
        case DecodeError::descriptorNamedTwice: return "descriptor named twice, by key";
        case DecodeError::surplusDescriptor: return "descriptor that no entry names";
        case DecodeError::tooManyDescriptors: return "descriptors cut: more than 4, or none left to receive them";
        case DecodeError::trailingBytes: return "bytes after the last entry";
    }
    return "unknown reason";
}

void appendShown(std::string& out, std::string_view untrusted) {
    out += '"';
    const std::size_t start = out.size();
    for (const char c : untrusted) {
        const auto byte = static_cast<unsigned char>(c);
        char escaped[5];
        if (c == '"' || c == '\\') {
            std::snprintf(escaped, sizeof escaped, "\\%c", c);
        } else if (byte < 0x20 || byte >= 0x7f) {
            std::snprintf(escaped, sizeof escaped, "\\x%02x", byte);
        } else {
            std::snprintf(escaped, sizeof escaped, "%c", c);
        }
        if (out.size() - start + std::strlen(escaped) > kShownCharacters) {
            out += "\"...";
            return;
        }
        out += escaped;
    }
    out += '"';
}

void appendValue(std::string& out, const MessageEntry& entry) {
    switch (entry.type) {
        case MessageValueType::int64: out += "int64 " + std::to_string(entry.signedValue); break;
        case MessageValueType::uint64: out += "uint64 " + std::to_string(entry.unsignedValue); break;
        case MessageValueType::string:
            out += "string ";
            appendShown(out, entry.text);
            break;
        case MessageValueType::boolean: out += entry.booleanValue ? "bool true" : "bool false"; break;
        case MessageValueType::sharedMemory: out += "shared memory"; break;
    }
}

}  // namespace

DecodedMessage decodeMessage(std::span<const std::uint8_t> datagram, std::span<SharedMemory* const> objects,
                             EntryStorage& storage) noexcept {
    DecodedMessage decoded;
    const auto fail = [&decoded](DecodeError error, std::string_view key = {}) {
        decoded.error = error;
        decoded.untrustedKey = key;
        return decoded;
    };
    if (datagram.empty()) return fail(DecodeError::empty);
    if (datagram.size() > kMaximumDatagramBytes) return fail(DecodeError::tooLong);
    if (objects.size() > kMaximumDescriptors) return fail(DecodeError::tooManyDescriptors);

    Reader reader(datagram);
    std::size_t count = 0;
    if (const DecodeError error = decodeHeader(reader, count); error != DecodeError::none) return fail(error);

    DescriptorUse descriptors{objects};
    for (std::size_t i = 0; i < count; ++i) {
        MessageEntry& entry = storage[i];
        entry = MessageEntry{};
        std::uint64_t type = 0;
        if (!reader.unsignedNumber(1, type)) return fail(DecodeError::entryCut);
        std::string_view key;
        if (const DecodeError error = decodeKey(reader, key); error != DecodeError::none) return fail(error, key);
        if (repeats(std::span(storage).first(i), key)) return fail(DecodeError::repeatedKey, key);
        entry.key = key;
        const DecodeError error = decodeValue(reader, type, descriptors, entry);
        if (error != DecodeError::none) return fail(error, key);
    }
    if (!reader.atEnd()) return fail(DecodeError::trailingBytes);
    if (descriptors.named != (1u << objects.size()) - 1) return fail(DecodeError::surplusDescriptor);
    decoded.entries = std::span<const MessageEntry>(storage.data(), count);
    return decoded;
}

std::string describeUndecodable(std::size_t bytes, DecodeError error, std::string_view untrustedKey) {
    std::string out = "<undecodable message, ";
    out += error == DecodeError::tooLong ? "more than " + std::to_string(kMaximumDatagramBytes) : std::to_string(bytes);
    out += " bytes: ";
    out += reasonText(error);
    if (!untrustedKey.empty()) {
        out += ' ';
        appendShown(out, untrustedKey);
    }
    out += '>';
    return out;
}

std::string describeDictionary(std::span<const MessageEntry> entries) {
    std::string out = "{";
    for (const MessageEntry& entry : entries) {
        if (out.size() > 1) out += ", ";
        appendShown(out, entry.key);
        out += ": ";
        appendValue(out, entry);
    }
    out += '}';
    return out;
}

MessageEncoder::MessageEncoder() : bytes_(kMessageMagic.begin(), kMessageMagic.end()) { appendLittleEndian(0, 4); }

MessageEncoder& MessageEncoder::int64(std::string_view key, std::int64_t value) {
    begin(1, key);
    appendLittleEndian(static_cast<std::uint64_t>(value), 8);
    return *this;
}

MessageEncoder& MessageEncoder::uint64(std::string_view key, std::uint64_t value) {
    begin(2, key);
    appendLittleEndian(value, 8);
    return *this;
}

MessageEncoder& MessageEncoder::string(std::string_view key, std::string_view text) {
    begin(3, key);
    appendLittleEndian(text.size(), 4);
    bytes_.insert(bytes_.end(), text.begin(), text.end());
    return *this;
}

MessageEncoder& MessageEncoder::boolean(std::string_view key, bool value) {
    begin(4, key);
    appendLittleEndian(value ? 1 : 0, 1);
    return *this;
}

MessageEncoder& MessageEncoder::sharedMemory(std::string_view key, std::uint8_t descriptorIndex) {
    begin(5, key);
    appendLittleEndian(descriptorIndex, 1);
    return *this;
}

MessageEncoder& MessageEncoder::raw(std::uint8_t type, std::string_view key, std::string_view valueBytes) {
    begin(type, key);
    bytes_.insert(bytes_.end(), valueBytes.begin(), valueBytes.end());
    return *this;
}

void MessageEncoder::begin(std::uint8_t type, std::string_view key) {
    const unsigned count = bytes_[4] + 256u * bytes_[5] + 1;
    bytes_[4] = static_cast<std::uint8_t>(count);
    bytes_[5] = static_cast<std::uint8_t>(count >> 8);
    bytes_.push_back(type);
    bytes_.push_back(static_cast<std::uint8_t>(key.size()));
    bytes_.insert(bytes_.end(), key.begin(), key.end());
}

void MessageEncoder::appendLittleEndian(std::uint64_t value, std::size_t bytes) {
    for (std::size_t i = 0; i < bytes; ++i) bytes_.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
}

}  // namespace quorvix::linuxos
