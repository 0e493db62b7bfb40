#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "swivex/Event.h"
#include "swivex/EventFormat.h"

namespace quorvix::swivex {

// Makes events of records, with the offsets that the running kernel gives in its format files. What a record is too
// short for reads as 0 or as an empty text.
class EventDecoder {
public:
    // A later format of the same id replaces the one before. Nothing is decoded before the formats are there.
    void add(EventFormat format);
    bool knows(std::string_view name) const;

    // Fills the event; its texts point into the record and into this decoder. False: of an event that it does not know.
    bool decode(std::uint64_t timeNs, std::span<const std::uint8_t> record, Event& event) const;

private:
    // A field's place, without its name: what the hot events are read with.
    struct Place {
        std::uint32_t offset = 0;
        std::uint32_t size = 0;  // 0: this kernel has no such field
        bool isSigned = false;
    };
    struct Known {
        EventFormat format;
        EventKind kind = EventKind::other;
        Place pid, flags;
        Place prevPid, prevPrio, prevState, prevComm;
        Place nextPid, nextPrio, nextComm, targetCpu;
    };

    static Place placeOf(const EventFormat& format, std::string_view name);
    static std::int64_t number(std::span<const std::uint8_t> record, Place place);
    static std::string_view text(std::span<const std::uint8_t> record, Place place);
    static std::string_view textOf(std::span<const std::uint8_t> record, const FieldFormat& field);

    std::vector<Known> known_;
    std::vector<std::int16_t> byId_;  // index in known_, -1: none
};

}  // namespace quorvix::swivex
