#pragma once

#include <charconv>
#include <concepts>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "platform/TextFormat.h"

namespace quorvix {

class PowerLogValue;

// A dictionary's key: a text, or a number of either sign.
using PowerLogKey = std::variant<std::string, std::int64_t, std::uint64_t>;

// Entries in insertion order; a key stands once.
class PowerLogDictionary {
public:
    using Entry = std::pair<PowerLogKey, PowerLogValue>;

    // Replaces the value where the key is there already.
    void set(PowerLogKey key, PowerLogValue value);
    const std::vector<Entry>& entries() const& { return entries_; }
    void entries() && = delete;

private:
    // The place of a key, or the number of entries.
    std::size_t find(const PowerLogKey& key) const;

    std::vector<Entry> entries_;
    // Kept from kFewEntries on: the many small dictionaries of an event do without.
    static constexpr std::size_t kFewEntries = 32;
    std::map<PowerLogKey, std::size_t> positions_;
};

// A typed value: the store keeps the type.
class PowerLogValue {
public:
    using Content = std::variant<double, std::int64_t, std::uint64_t, std::uint8_t, std::string, PowerLogDictionary>;

    PowerLogValue(double value) : content_(value) {}
    PowerLogValue(std::int64_t value) : content_(value) {}
    PowerLogValue(std::uint64_t value) : content_(value) {}
    PowerLogValue(std::uint8_t value) : content_(value) {}
    PowerLogValue(std::string text) : content_(std::move(text)) {}
    PowerLogValue(PowerLogDictionary dictionary) : content_(std::move(dictionary)) {}

    const Content& content() const { return content_; }

private:
    Content content_;
};

inline std::size_t PowerLogDictionary::find(const PowerLogKey& key) const {
    if (entries_.size() >= kFewEntries) {
        const auto found = positions_.find(key);
        return found == positions_.end() ? entries_.size() : found->second;
    }
    std::size_t place = 0;
    while (place < entries_.size() && entries_[place].first != key) ++place;
    return place;
}

inline void PowerLogDictionary::set(PowerLogKey key, PowerLogValue value) {
    const std::size_t place = find(key);
    if (place < entries_.size()) {
        entries_[place].second = std::move(value);
        return;
    }
    entries_.emplace_back(std::move(key), std::move(value));
    if (entries_.size() < kFewEntries) return;
    if (entries_.size() > kFewEntries) {
        positions_.emplace(entries_.back().first, place);
        return;
    }
    for (std::size_t earlier = 0; earlier < entries_.size(); ++earlier) {
        positions_.emplace(entries_[earlier].first, earlier);
    }
}

// One line of JSON in insertion order; keys that are numbers stand in quotes.
inline void appendTextForm(std::string& out, const PowerLogDictionary& dictionary);

// A number with as few digits as tell it apart, or the dictionary's form.
inline void appendTextForm(std::string& out, const PowerLogValue& value) {
    const auto append = [&out](const auto& content) {
        using Content = std::decay_t<decltype(content)>;
        if constexpr (std::same_as<Content, std::string>) {
            text_format::appendQuoted(out, content);
        } else if constexpr (std::same_as<Content, PowerLogDictionary>) {
            appendTextForm(out, content);
        } else {
            char digits[32];
            const auto end = std::to_chars(digits, digits + sizeof digits, content).ptr;
            out.append(digits, end);
        }
    };
    std::visit(append, value.content());
}

inline void appendTextForm(std::string& out, const PowerLogDictionary& dictionary) {
    out += '{';
    bool first = true;
    for (const auto& [key, value] : dictionary.entries()) {
        if (!first) out += ',';
        first = false;
        const auto appendKey = [&out](const auto& content) {
            if constexpr (std::same_as<std::decay_t<decltype(content)>, std::string>) {
                text_format::appendQuoted(out, content);
            } else {
                text_format::appendQuoted(out, std::to_string(content));
            }
        };
        std::visit(appendKey, key);
        out += ':';
        appendTextForm(out, value);
    }
    out += '}';
}

// The power/energy event log. Used on one queue.
class PowerLog {
public:
    virtual ~PowerLog() = default;
    // Sends one registered event; fire and forget. The disk is waited for on the caller's queue.
    virtual void sendEvent(std::int32_t category, std::string_view name, const PowerLogDictionary& dictionary) = 0;
};

}  // namespace quorvix
