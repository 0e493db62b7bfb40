/*
 * The wire format once more, written for the tests alone: neither side of it shares code with the library or the
 * daemon.
 */
#ifndef QUORVIX_TESTS_CLIENT_DICTIONARY_H
#define QUORVIX_TESTS_CLIENT_DICTIONARY_H

#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>
#include <variant>

namespace quorvix::test {

/* Puts a message together byte by byte, to compare with what the library sent. */
class Wire {
public:
    Wire& int64(const std::string& key, std::int64_t value) {
        return entry('\1', key, number(static_cast<std::uint64_t>(value), 8));
    }
    Wire& uint64(const std::string& key, std::uint64_t value) { return entry('\2', key, number(value, 8)); }
    Wire& string(const std::string& key, const std::string& text) {
        return entry('\3', key, number(text.size(), 4) + text);
    }
    Wire& boolean(const std::string& key, bool value) { return entry('\4', key, number(value ? 1 : 0, 1)); }
    Wire& sharedMemory(const std::string& key, std::uint8_t index) { return entry('\5', key, number(index, 1)); }

    std::string bytes() const { return "VEX1" + number(count_, 2) + number(0, 2) + entries_; }

private:
    static std::string number(std::uint64_t value, int bytes) {
        std::string text;
        for (int i = 0; i < bytes; ++i) text += static_cast<char>((value >> (8 * i)) & 0xFF);
        return text;
    }
    Wire& entry(char type, const std::string& key, const std::string& value) {
        entries_ += type + number(key.size(), 1) + key + value;
        ++count_;
        return *this;
    }

    std::string entries_;
    std::uint64_t count_ = 0;
};

struct SharedMemoryIndex {
    std::uint8_t index;
};
using Value = std::variant<std::int64_t, std::uint64_t, std::string, bool, SharedMemoryIndex>;

/* Takes a message apart, for what cannot be compared byte by byte (times). Throws where it makes no sense. */
class Dictionary {
public:
    explicit Dictionary(const std::string& bytes) : rest_(bytes) {
        if (take(4) != "VEX1") throw std::runtime_error("magic");
        const std::uint64_t count = takeNumber(2);
        if (takeNumber(2) != 0) throw std::runtime_error("reserved");
        for (std::uint64_t i = 0; i < count; ++i) {
            const std::uint64_t type = takeNumber(1);
            const std::string key = take(takeNumber(1));
            if (!values_.emplace(key, takeValue(type)).second) throw std::runtime_error("repeated key");
        }
        if (!rest_.empty()) throw std::runtime_error("trailing bytes");
    }

    std::int64_t int64(const std::string& key) const { return std::get<std::int64_t>(values_.at(key)); }
    std::uint64_t uint64(const std::string& key) const { return std::get<std::uint64_t>(values_.at(key)); }
    std::string string(const std::string& key) const { return std::get<std::string>(values_.at(key)); }
    bool boolean(const std::string& key) const { return std::get<bool>(values_.at(key)); }
    std::size_t size() const { return values_.size(); }

private:
    std::string take(std::uint64_t length) {
        if (length > rest_.size()) throw std::runtime_error("cut");
        std::string taken = rest_.substr(0, length);
        rest_.erase(0, length);
        return taken;
    }
    std::uint64_t takeNumber(std::uint64_t bytes) {
        const std::string text = take(bytes);
        std::uint64_t value = 0;
        for (std::size_t i = 0; i < text.size(); ++i) {
            value |= static_cast<std::uint64_t>(static_cast<unsigned char>(text[i])) << (8 * i);
        }
        return value;
    }
    Value takeValue(std::uint64_t type) {
        switch (type) {
            case 1: return static_cast<std::int64_t>(takeNumber(8));
            case 2: return takeNumber(8);
            case 3: return take(takeNumber(4));
            case 4: return takeNumber(1) != 0;
            case 5: return SharedMemoryIndex{static_cast<std::uint8_t>(takeNumber(1))};
            default: throw std::runtime_error("type");
        }
    }

    std::string rest_;
    std::map<std::string, Value> values_;
};

}  // namespace quorvix::test

#endif
