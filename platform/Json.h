#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "platform/Result.h"

namespace quorvix {

class JsonValue;

using JsonArray = std::vector<JsonValue>;

// Members in insertion order, which is also the order they are written in.
class JsonObject {
public:
    using Member = std::pair<std::string, JsonValue>;

    JsonObject();
    JsonObject(std::initializer_list<Member> members);
    void add(std::string key, JsonValue value);
    const std::vector<Member>& members() const& { return members_; }
    void members() && = delete;  // would not outlive the loop that walks it

private:
    std::vector<Member> members_;
};

// One JSON value. Strings hold bytes: whether they are UTF-8 shows when they are serialised.
class JsonValue {
public:
    using Content =
        std::variant<std::nullptr_t, bool, std::int64_t, std::uint64_t, double, std::string, JsonArray, JsonObject>;

    JsonValue(std::nullptr_t = nullptr) : content_(nullptr) {}
    JsonValue(bool value) : content_(value) {}
    JsonValue(std::int32_t value) : content_(std::int64_t{value}) {}
    JsonValue(std::uint32_t value) : content_(std::uint64_t{value}) {}
    JsonValue(std::int64_t value) : content_(value) {}
    JsonValue(std::uint64_t value) : content_(value) {}
    JsonValue(double value) : content_(value) {}
    JsonValue(const char* text) : content_(std::string(text)) {}
    JsonValue(std::string_view text) : content_(std::string(text)) {}
    JsonValue(std::string text) : content_(std::move(text)) {}
    JsonValue(JsonArray values) : content_(std::move(values)) {}
    JsonValue(JsonObject object) : content_(std::move(object)) {}

    const Content& content() const { return content_; }

private:
    Content content_;
};

inline JsonObject::JsonObject() = default;
inline JsonObject::JsonObject(std::initializer_list<Member> members) : members_(members) {}
inline void JsonObject::add(std::string key, JsonValue value) {
    members_.emplace_back(std::move(key), std::move(value));
}

// JSON serialisation. Callable from any thread.
class JsonService {
public:
    virtual ~JsonService() = default;
    // Compact, members in insertion order, non-ASCII text unescaped. EILSEQ: a string is not UTF-8; EDOM: a number is
    // not finite.
    virtual Result<std::vector<std::uint8_t>> serialise(const JsonObject& object) = 0;
    // Text of the bytes. EILSEQ: they are not UTF-8.
    virtual Result<std::string> makeText(const std::vector<std::uint8_t>& bytes) = 0;
};

}  // namespace quorvix
