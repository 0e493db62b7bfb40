#include "swivex/Attributes.h"

#include <algorithm>

#include "swivex/Utf8.h"

namespace quorvix::swivex {

namespace {

constexpr std::string_view kPrefix = "com.norvane.quorvix.";
constexpr std::string_view kMissing = "missing.";
constexpr std::uint32_t kTraceAttributes = 126, kAttribute = 1, kKey = 1, kLong = 2, kText = 3;

}  // namespace

void Attributes::missing(std::string_view source, std::string why) {
    if (whyMissing(source).empty()) set(std::string(kMissing) + std::string(source), std::move(why));
}

std::string_view Attributes::whyMissing(std::string_view source) const {
    const std::string name = std::string(kMissing) + std::string(source);
    const auto found = std::ranges::find(entries_, name, &Entry::name);
    return found == entries_.end() ? std::string_view() : std::get<std::string>(found->value);
}

bool Attributes::has(std::string_view name) const {
    return std::ranges::find(entries_, name, &Entry::name) != entries_.end();
}

void Attributes::write(PacketWriter& writer) const {
    writer.message(kTraceAttributes, [&] {
        for (const Entry& entry : entries_) {
            writer.message(kAttribute, [&] {
                writer.text(kKey, std::string(kPrefix) + entry.name);
                if (const auto* const number = std::get_if<std::int64_t>(&entry.value)) {
                    writer.signedNumber(kLong, *number);
                } else {
                    writer.text(kText, validUtf8(std::get<std::string>(entry.value)));
                }
            });
        }
    });
}

}  // namespace quorvix::swivex
