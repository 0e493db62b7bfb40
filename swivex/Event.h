#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace quorvix::swivex {

enum class EventKind : std::uint8_t { schedSwitch, schedWaking, schedWakeupNew, print, other };

// One named value of an event that has no place of its own here.
struct EventField {
    std::string_view name;
    std::string_view text;  // when isText
    std::int64_t number = 0;
    bool isText = false;
    bool isSigned = true;
};

// One event of the recorder's ring, decoded. Texts point into what it was decoded from.
struct Event {
    static constexpr std::size_t kMostFields = 12;

    std::uint64_t timeNs = 0;  // CLOCK_MONOTONIC
    EventKind kind = EventKind::other;
    std::int32_t pid = 0;  // the thread that ran when it happened
    std::uint32_t commonFlags = 0;
    std::string_view name;

    // schedSwitch
    std::int32_t prevPid = 0;
    std::int32_t prevPrio = 0;
    std::int64_t prevState = 0;
    std::string_view prevComm;
    // schedSwitch: the thread that runs now; schedWaking, schedWakeupNew: the thread that is woken
    std::int32_t nextPid = 0;
    std::int32_t nextPrio = 0;
    std::string_view nextComm;
    // schedWaking, schedWakeupNew
    std::int32_t targetCpu = 0;
    // print
    std::string_view text;
    // other
    std::size_t fieldCount = 0;
    std::array<EventField, kMostFields> fields{};

    std::span<const EventField> allFields() const { return {fields.data(), fieldCount}; }
    void addField(const EventField& field) {
        if (fieldCount < kMostFields) fields[fieldCount++] = field;
    }
};

}  // namespace quorvix::swivex
