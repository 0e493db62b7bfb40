#pragma once

#include <zlib.h>

#include <cstdint>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace quorvix::swivex::tests {

// A protobuf message taken apart by field number, for tests that look into what was written. Throws where the bytes
// are no message.
struct Message {
    struct Field {
        std::uint32_t number = 0;
        std::uint64_t value = 0;  // of a number
        std::string bytes;        // of a text or message
    };
    std::vector<Field> fields;

    Message() = default;
    explicit Message(std::string_view bytes) {
        std::size_t at = 0;
        const auto varint = [&] {
            std::uint64_t value = 0;
            for (unsigned shift = 0;; shift += 7) {
                if (at >= bytes.size() || shift > 63) throw std::runtime_error("a number is cut off");
                const auto byte = static_cast<std::uint8_t>(bytes[at++]);
                value |= std::uint64_t{byte & 0x7fU} << shift;
                if (byte < 0x80) return value;
            }
        };
        while (at < bytes.size()) {
            const std::uint64_t tag = varint();
            Field field{static_cast<std::uint32_t>(tag >> 3), 0, ""};
            if ((tag & 7) == 0) {
                field.value = varint();
            } else if ((tag & 7) == 2) {
                const std::uint64_t length = varint();
                if (length > bytes.size() - at) throw std::runtime_error("a message is cut off");
                field.bytes = bytes.substr(at, length);
                at += length;
            } else {
                throw std::runtime_error("an unexpected wire type");
            }
            fields.push_back(std::move(field));
        }
    }

    std::vector<Field> all(std::uint32_t number) const {
        std::vector<Field> found;
        for (const Field& field : fields) {
            if (field.number == number) found.push_back(field);
        }
        return found;
    }
    bool has(std::uint32_t number) const { return !all(number).empty(); }
    std::uint64_t number(std::uint32_t number) const { return all(number).at(0).value; }
    std::string text(std::uint32_t number) const { return all(number).at(0).bytes; }
    Message message(std::uint32_t number) const { return Message(text(number)); }
    std::vector<Message> messages(std::uint32_t number) const {
        std::vector<Message> found;
        for (const Field& field : all(number)) found.emplace_back(field.bytes);
        return found;
    }
    // A packed column.
    std::vector<std::uint64_t> column(std::uint32_t field) const {
        std::vector<std::uint64_t> values;
        if (!has(field)) return values;
        std::uint64_t value = 0;
        unsigned shift = 0;
        for (const char c : text(field)) {
            const auto byte = static_cast<std::uint8_t>(c);
            value |= std::uint64_t{byte & 0x7fU} << shift;
            shift += 7;
            if (byte < 0x80) {
                values.push_back(value);
                value = 0;
                shift = 0;
            }
        }
        return values;
    }
};

inline std::string inflated(const std::string& bytes) {
    std::string out(std::size_t{2} << 20, '\0');
    uLongf size = out.size();
    if (uncompress(reinterpret_cast<Bytef*>(out.data()), &size, reinterpret_cast<const Bytef*>(bytes.data()),
                   bytes.size()) != Z_OK) {
        throw std::runtime_error("a piece does not inflate");
    }
    out.resize(size);
    return out;
}

// All packets of a file, those in compressed pieces too.
inline std::vector<Message> packetsOf(std::string_view file) {
    std::vector<Message> packets;
    for (const Message& packet : Message(file).messages(1)) {
        if (!packet.has(50)) {
            packets.push_back(packet);
            continue;
        }
        for (const Message& inner : packetsOf(inflated(packet.text(50)))) packets.push_back(inner);
    }
    return packets;
}

// The file without compressed pieces, as `protoc --decode` understands it.
inline std::string withoutCompression(std::string_view file) {
    std::string plain;
    for (const Message::Field& field : Message(file).all(1)) {
        const Message packet(field.bytes);
        if (packet.has(50)) {
            plain += inflated(packet.text(50));
            continue;
        }
        plain += '\x0a';
        std::uint64_t length = field.bytes.size();
        for (; length >= 0x80; length >>= 7) plain += static_cast<char>(length | 0x80);
        plain += static_cast<char>(length);
        plain += field.bytes;
    }
    return plain;
}

// What the file says of itself, without the common prefix. Numbers as decimal text.
inline std::map<std::string, std::string> attributesOf(const std::vector<Message>& packets) {
    constexpr std::string_view kPrefix = "com.norvane.quorvix.";
    std::map<std::string, std::string> found;
    for (const Message& packet : packets) {
        for (const Message& attributes : packet.messages(126)) {
            for (const Message& one : attributes.messages(1)) {
                const std::string key = one.text(1).substr(kPrefix.size());
                found[key] = one.has(3) ? one.text(3) : std::to_string(static_cast<std::int64_t>(one.number(2)));
            }
        }
    }
    return found;
}

// A switch as a reader of the file gets it.
struct SeenSwitch {
    std::uint64_t timeNs = 0;
    std::int32_t prevPid = 0;
    std::int64_t prevState = 0;
    std::int32_t nextPid = 0;
    std::string nextComm;

    friend bool operator==(const SeenSwitch&, const SeenSwitch&) = default;
};

// The switches of a CPU in the order of the file, taken out of events and columns.
inline std::vector<SeenSwitch> switchesOf(const std::vector<Message>& packets, std::uint64_t cpu) {
    std::multimap<std::uint64_t, SeenSwitch> byTime;
    std::vector<SeenSwitch> all;
    for (const Message& packet : packets) {
        for (const Message& bundle : packet.messages(1)) {
            if (bundle.number(1) != cpu) continue;
            for (const Message& event : bundle.messages(2)) {
                if (!event.has(4)) continue;
                const Message body = event.message(4);
                const SeenSwitch one{event.number(1), static_cast<std::int32_t>(body.number(2)),
                                     static_cast<std::int64_t>(body.number(4)),
                                     static_cast<std::int32_t>(body.number(6)), body.text(5)};
                byTime.emplace(one.timeNs, one);
            }
            for (const Message& compact : bundle.messages(4)) {
                const auto times = compact.column(1), states = compact.column(2), pids = compact.column(3),
                           comms = compact.column(6);
                const auto names = compact.all(5);
                std::uint64_t time = 0;
                for (std::size_t index = 0; index < times.size(); ++index) {
                    time += times[index];
                    byTime.emplace(
                        time, SeenSwitch{time, -1, static_cast<std::int64_t>(states.at(index)),
                                         static_cast<std::int32_t>(pids.at(index)), names.at(comms.at(index)).bytes});
                }
            }
        }
    }
    std::int32_t running = -1;
    for (auto& [time, one] : byTime) {
        if (one.prevPid == -1) one.prevPid = running;
        running = one.nextPid;
        all.push_back(one);
    }
    return all;
}

}  // namespace quorvix::swivex::tests
