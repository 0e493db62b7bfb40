#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "swivex/PacketWriter.h"

namespace quorvix::swivex {

// What a trace file says about itself: named values under this system's own prefix, which viewers show as metadata.
class Attributes {
public:
    void set(std::string_view name, std::int64_t value) { entries_.push_back({std::string(name), value}); }
    void set(std::string_view name, std::string value) { entries_.push_back({std::string(name), std::move(value)}); }
    // A source that could not be read, and why. Said once a source: the first reason stands.
    void missing(std::string_view source, std::string why);
    // Why a source is missing; empty when it is not.
    std::string_view whyMissing(std::string_view source) const;

    bool has(std::string_view name) const;

    // As the message of a packet.
    void write(PacketWriter& writer) const;

private:
    struct Entry {
        std::string name;
        std::variant<std::int64_t, std::string> value;
    };
    std::vector<Entry> entries_;
};

}  // namespace quorvix::swivex
