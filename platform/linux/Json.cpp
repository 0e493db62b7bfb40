#include "platform/linux/Json.h"

#include <cerrno>
#include <charconv>
#include <cmath>
#include <concepts>

#include "platform/linux/Utf8.h"

namespace quorvix::linuxos {

namespace {

// Appends to one text and remembers the first error.
class JsonWriter {
public:
    void append(const JsonObject& object) {
        out_ += '{';
        bool first = true;
        for (const auto& [key, value] : object.members()) {
            if (!first) out_ += ',';
            first = false;
            appendText(key);
            out_ += ':';
            append(value);
        }
        out_ += '}';
    }

    Result<std::vector<std::uint8_t>> result() const {
        if (error_ != 0) return ErrorCode{error_};
        return std::vector<std::uint8_t>(out_.begin(), out_.end());
    }

private:
    void append(const JsonValue& value) {
        std::visit([this](const auto& content) { appendContent(content); }, value.content());
    }

    void appendContent(std::nullptr_t) { out_ += "null"; }
    void appendContent(bool value) { out_ += value ? "true" : "false"; }
    void appendContent(const std::string& text) { appendText(text); }
    void appendContent(const JsonObject& object) { append(object); }
    void appendContent(const JsonArray& values) {
        out_ += '[';
        for (std::size_t index = 0; index < values.size(); ++index) {
            if (index > 0) out_ += ',';
            append(values[index]);
        }
        out_ += ']';
    }
    void appendContent(double value) {
        if (!std::isfinite(value)) return fail(EDOM);
        appendNumber(value);
    }
    template <std::integral Integer>
    void appendContent(Integer value) {
        appendNumber(value);
    }

    // The shortest digits that read back as the same number, in no locale.
    template <class Number>
    void appendNumber(Number value) {
        char digits[32];
        const auto end = std::to_chars(digits, digits + sizeof digits, value);
        out_.append(digits, end.ptr);
    }

    void appendText(std::string_view text) {
        if (!isUtf8(text)) return fail(EILSEQ);
        out_ += '"';
        for (const char character : text) appendCharacter(character);
        out_ += '"';
    }

    void appendCharacter(char character) {
        static constexpr char kHex[] = "0123456789abcdef";
        switch (character) {
            case '"': out_ += "\\\""; return;
            case '\\': out_ += "\\\\"; return;
            case '\b': out_ += "\\b"; return;
            case '\f': out_ += "\\f"; return;
            case '\n': out_ += "\\n"; return;
            case '\r': out_ += "\\r"; return;
            case '\t': out_ += "\\t"; return;
            default: break;
        }
        const auto byte = static_cast<std::uint8_t>(character);
        if (byte >= 0x20) {
            out_ += character;
        } else {
            out_ += "\\u00";
            out_ += kHex[byte >> 4];
            out_ += kHex[byte & 0xF];
        }
    }

    void fail(int error) {
        if (error_ == 0) error_ = error;
    }

    std::string out_;
    int error_ = 0;
};

}  // namespace

Result<std::vector<std::uint8_t>> LinuxJson::serialise(const JsonObject& object) {
    JsonWriter writer;
    writer.append(object);
    return writer.result();
}

Result<std::string> LinuxJson::makeText(const std::vector<std::uint8_t>& bytes) {
    std::string text(bytes.begin(), bytes.end());
    if (!isUtf8(text)) return ErrorCode{EILSEQ};
    return text;
}

}  // namespace quorvix::linuxos
