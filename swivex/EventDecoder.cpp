#include "swivex/EventDecoder.h"

#include <algorithm>
#include <cstring>

namespace quorvix::swivex {

namespace {

EventKind kindNamed(std::string_view name) {
    if (name == "sched_switch") return EventKind::schedSwitch;
    if (name == "sched_waking") return EventKind::schedWaking;
    if (name == "sched_wakeup_new") return EventKind::schedWakeupNew;
    return name == "print" ? EventKind::print : EventKind::other;
}

std::string_view upToNul(std::string_view text) { return text.substr(0, text.find('\0')); }

std::string_view bytesAt(std::span<const std::uint8_t> record, std::size_t offset, std::size_t size) {
    if (offset >= record.size()) return {};
    const std::size_t there = std::min(size, record.size() - offset);
    return upToNul({reinterpret_cast<const char*>(record.data()) + offset, there});
}

}  // namespace

EventDecoder::Place EventDecoder::placeOf(const EventFormat& format, std::string_view name) {
    const FieldFormat* const field = format.field(name);
    return field ? Place{field->offset, field->size, field->isSigned} : Place{};
}

void EventDecoder::add(EventFormat format) {
    const std::size_t id = format.id;
    if (byId_.size() <= id) byId_.resize(id + 1, -1);
    Known known;
    known.kind = kindNamed(format.name);
    known.pid = placeOf(format, "common_pid");
    known.flags = placeOf(format, "common_flags");
    if (known.kind == EventKind::schedSwitch) {
        known.prevPid = placeOf(format, "prev_pid");
        known.prevPrio = placeOf(format, "prev_prio");
        known.prevState = placeOf(format, "prev_state");
        known.prevComm = placeOf(format, "prev_comm");
        known.nextPid = placeOf(format, "next_pid");
        known.nextPrio = placeOf(format, "next_prio");
        known.nextComm = placeOf(format, "next_comm");
    } else if (known.kind != EventKind::other) {
        known.nextPid = placeOf(format, "pid");
        known.nextPrio = placeOf(format, "prio");
        known.nextComm = placeOf(format, "comm");
        known.targetCpu = placeOf(format, "target_cpu");
    }
    known.format = std::move(format);
    byId_[id] = static_cast<std::int16_t>(known_.size());
    known_.push_back(std::move(known));
}

bool EventDecoder::knows(std::string_view name) const {
    return std::ranges::any_of(known_, [&](const Known& known) { return known.format.name == name; });
}

std::int64_t EventDecoder::number(std::span<const std::uint8_t> record, Place place) {
    if (place.offset > record.size() || place.size > record.size() - place.offset) return 0;
    const auto load = [&]<class Signed, class Unsigned>(Signed, Unsigned) -> std::int64_t {
        Unsigned value = 0;
        std::memcpy(&value, record.data() + place.offset, sizeof value);
        return place.isSigned ? static_cast<std::int64_t>(static_cast<Signed>(value))
                              : static_cast<std::int64_t>(value);
    };
    switch (place.size) {
        case 1: return load(std::int8_t{}, std::uint8_t{});
        case 2: return load(std::int16_t{}, std::uint16_t{});
        case 4: return load(std::int32_t{}, std::uint32_t{});
        case 8: return load(std::int64_t{}, std::uint64_t{});
        default: return 0;
    }
}

std::string_view EventDecoder::text(std::span<const std::uint8_t> record, Place place) {
    return bytesAt(record, place.offset, place.size);
}

std::string_view EventDecoder::textOf(std::span<const std::uint8_t> record, const FieldFormat& field) {
    switch (field.kind) {
        case FieldFormat::Kind::text: return bytesAt(record, field.offset, field.size);
        case FieldFormat::Kind::rest: return bytesAt(record, field.offset, record.size());
        case FieldFormat::Kind::location:
        case FieldFormat::Kind::relative: {
            const auto word = static_cast<std::uint32_t>(number(record, {field.offset, 4, false}));
            const std::size_t behind = field.kind == FieldFormat::Kind::relative ? field.offset + 4 : 0;
            return bytesAt(record, behind + (word & 0xffff), word >> 16);
        }
        case FieldFormat::Kind::number:
        case FieldFormat::Kind::skipped: break;
    }
    return {};
}

bool EventDecoder::decode(std::uint64_t timeNs, std::span<const std::uint8_t> record, Event& event) const {
    // Every record begins with its event's id.
    const auto id = static_cast<std::size_t>(number(record, {0, 2, false}));
    if (record.size() < 2 || id >= byId_.size() || byId_[id] < 0) return false;
    const Known& known = known_[static_cast<std::size_t>(byId_[id])];
    event.timeNs = timeNs;
    event.kind = known.kind;
    event.name = known.format.name;
    event.pid = static_cast<std::int32_t>(number(record, known.pid));
    event.commonFlags = static_cast<std::uint32_t>(number(record, known.flags));
    event.fieldCount = 0;
    switch (known.kind) {
        case EventKind::schedSwitch:
            event.prevPid = static_cast<std::int32_t>(number(record, known.prevPid));
            event.prevPrio = static_cast<std::int32_t>(number(record, known.prevPrio));
            event.prevState = number(record, known.prevState);
            event.prevComm = text(record, known.prevComm);
            [[fallthrough]];
        case EventKind::schedWaking:
        case EventKind::schedWakeupNew:
            event.nextPid = static_cast<std::int32_t>(number(record, known.nextPid));
            event.nextPrio = static_cast<std::int32_t>(number(record, known.nextPrio));
            event.nextComm = text(record, known.nextComm);
            event.targetCpu = static_cast<std::int32_t>(number(record, known.targetCpu));
            break;
        case EventKind::print: {
            const FieldFormat* const buffer = known.format.field("buf");
            event.text = buffer ? textOf(record, *buffer) : std::string_view();
            break;
        }
        case EventKind::other:
            for (const FieldFormat& field : known.format.fields) {
                if (field.name.starts_with("common_") || field.kind == FieldFormat::Kind::skipped) continue;
                EventField value;
                value.name = field.name;
                value.isText = field.kind != FieldFormat::Kind::number;
                value.isSigned = field.isSigned;
                if (value.isText) {
                    value.text = textOf(record, field);
                } else {
                    value.number = number(record, {field.offset, field.size, field.isSigned});
                }
                event.addField(value);
            }
            break;
    }
    return true;
}

}  // namespace quorvix::swivex
