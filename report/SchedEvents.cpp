#include "report/SchedEvents.h"

#include <algorithm>
#include <limits>

namespace quorvix::report {

namespace {

using Kind = ProtoField::Kind;

// Fields of the bundle.
constexpr std::uint32_t kCpu = 1;
constexpr std::uint32_t kEvent = 2;
constexpr std::uint32_t kLost = 3;
constexpr std::uint32_t kCompact = 4;
// Fields of one event.
constexpr std::uint32_t kEventTime = 1;
constexpr std::uint32_t kEventPid = 2;
constexpr std::uint32_t kEventFlags = 5;
constexpr std::uint32_t kSwitch = 4;
constexpr std::uint32_t kWaking = 20;
constexpr std::uint32_t kWakeupNew = 114;
// Lists of the compact form, each as long as the others of its kind.
constexpr std::uint32_t kSwitchTime = 1;
constexpr std::uint32_t kSwitchState = 2;
constexpr std::uint32_t kSwitchNext = 3;
constexpr std::uint32_t kSwitchName = 6;
constexpr std::uint32_t kNames = 5;
constexpr std::uint32_t kWakingTime = 7;
constexpr std::uint32_t kWakingPid = 8;
constexpr std::uint32_t kWakingTarget = 9;
constexpr std::uint32_t kWakingFlags = 12;
// The kernel's marks of an event: it was recorded while an interrupt was served, hard or soft.
constexpr std::uint64_t kInterruptFlags = 0x08 | 0x10;

// The state of a thread that left the CPU: its bits, and the mark of being pushed out (above them) taken off.
std::uint32_t stateOf(const ProtoField& field) { return static_cast<std::uint32_t>(field.value) & thread_state::kAll; }

}  // namespace

bool SchedDecoder::takeEvent(Bytes message) {
    SchedEvent event;
    bool isSched = false;
    std::uint64_t flags = 0;
    std::int32_t recordedBy = kNoThread;
    ProtoFields fields(message);
    ProtoField field;
    while (fields.next(field)) {
        if (field.number == kEventTime) event.timeNs = field.value;
        if (field.number == kEventPid) recordedBy = field.asId();
        if (field.number == kEventFlags) flags = field.value;
        if (field.kind != Kind::bytes) continue;
        if (field.number != kSwitch && field.number != kWaking && field.number != kWakeupNew) continue;
        isSched = true;
        event.kind = field.number == kSwitch ? SchedEvent::Kind::switched : SchedEvent::Kind::woken;
        ProtoFields body(field.bytes);
        ProtoField part;
        while (body.next(part)) {
            if (event.kind == SchedEvent::Kind::woken) {
                if (part.number == 2) event.next = part.asId();
                if (part.number == 1) event.nextName = part.text();
                if (part.number == 5) event.targetCpu = part.asId();
                continue;
            }
            switch (part.number) {
                case 2: event.previous = part.asId(); break;
                case 4: event.previousState = stateOf(part); break;
                case 5: event.nextName = part.text(); break;
                case 6: event.next = part.asId(); break;
                default: break;
            }
        }
        if (body.damaged()) return false;
    }
    if (fields.damaged()) return false;
    if (!isSched) return true;
    if (event.kind == SchedEvent::Kind::woken) {
        event.previous = recordedBy;
        event.byInterrupt = (flags & kInterruptFlags) != 0;
    }
    events_.push_back(event);
    return true;
}

bool SchedDecoder::takeCompact(Bytes message) {
    for (auto& list : lists_) list.clear();
    names_.clear();
    ProtoFields fields(message);
    ProtoField field;
    while (fields.next(field)) {
        if (field.number == kNames && field.kind == Kind::bytes) {
            names_.push_back(field.text());
            continue;
        }
        if (field.number >= std::size(lists_)) continue;
        auto& list = lists_[field.number];
        if (field.kind == Kind::varint) {
            list.push_back(field.value);
        } else if (field.kind == Kind::bytes) {
            Bytes rest = field.bytes;
            std::uint64_t value = 0;
            while (!rest.empty()) {
                if (!takeVarint(rest, value) || list.size() >= kLongestBundle) return false;
                list.push_back(value);
            }
        }
    }
    if (fields.damaged()) return false;

    const auto at = [this](std::uint32_t list, std::size_t index) {
        return index < lists_[list].size() ? lists_[list][index] : 0;
    };
    const auto nameAt = [&](std::uint32_t list, std::size_t index) {
        const std::uint64_t name = at(list, index);
        return name < names_.size() && index < lists_[list].size() ? names_[name] : std::string_view();
    };
    if (lists_[kSwitchNext].size() != lists_[kSwitchTime].size() ||
        lists_[kSwitchState].size() != lists_[kSwitchTime].size() ||
        lists_[kWakingPid].size() != lists_[kWakingTime].size()) {
        return false;
    }
    std::uint64_t time = 0;
    for (std::size_t index = 0; index < lists_[kSwitchTime].size(); ++index) {
        time += lists_[kSwitchTime][index];
        SchedEvent event;
        event.timeNs = time;
        event.next = static_cast<std::int32_t>(at(kSwitchNext, index));
        event.previousState = static_cast<std::uint32_t>(at(kSwitchState, index)) & thread_state::kAll;
        event.nextName = nameAt(kSwitchName, index);
        events_.push_back(event);
    }
    time = 0;
    for (std::size_t index = 0; index < lists_[kWakingTime].size(); ++index) {
        time += lists_[kWakingTime][index];
        SchedEvent event;
        event.kind = SchedEvent::Kind::woken;
        event.timeNs = time;
        event.next = static_cast<std::int32_t>(at(kWakingPid, index));
        event.byInterrupt = (at(kWakingFlags, index) & kInterruptFlags) != 0;
        if (index < lists_[kWakingTarget].size()) event.targetCpu = static_cast<std::int32_t>(at(kWakingTarget, index));
        event.nextName = nameAt(11, index);
        events_.push_back(event);
    }
    return true;
}

bool SchedDecoder::decode(Bytes bundle, const Visitor& visit) {
    events_.clear();
    std::uint32_t cpu = std::numeric_limits<std::uint32_t>::max();
    bool whole = true;
    // The names of compact events live in the lists of one message; two in a bundle would share them.
    bool hasCompact = false;
    bool hasLost = false;
    ProtoFields fields(bundle);
    ProtoField field;
    while (whole && fields.next(field)) {
        if (field.number == kCpu && field.kind == Kind::varint) {
            cpu = static_cast<std::uint32_t>(std::min<std::uint64_t>(field.value, kMostCpus));
        } else if (field.kind == Kind::varint && field.number == kLost) {
            hasLost = field.value != 0;
        } else if (field.kind == Kind::bytes && field.number == kEvent) {
            whole = takeEvent(field.bytes);
        } else if (field.kind == Kind::bytes && field.number == kCompact) {
            whole = !hasCompact && takeCompact(field.bytes);
            hasCompact = true;
        }
        if (events_.size() > kLongestBundle * 2) whole = false;
    }
    whole = whole && !fields.damaged();
    // Without a CPU it means nothing: readers drop such a bundle.
    if (cpu >= kMostCpus) return whole && events_.empty();

    std::ranges::stable_sort(events_, {}, &SchedEvent::timeNs);
    CpuState& state = cpus_[cpu];
    if (hasLost) state.running = kNoThread;
    for (SchedEvent& event : events_) {
        event.cpu = cpu;
        // Who comes is all that a compact event says; who left is who came before.
        if (event.previous == kNoThread) event.previous = state.running;
        if (event.kind == SchedEvent::Kind::switched) {
            if (state.running == kIdleThread && event.previous != kIdleThread) event.idleSinceNs = state.sinceNs;
            state.running = event.next;
            state.sinceNs = event.timeNs;
            if (!state.hasSwitched) {
                state.hasSwitched = true;
                const auto clamped = clamped_.find(cpu);
                if (clamped != clamped_.end()) event.timeNs = std::min(event.timeNs, clamped->second);
            }
        }
        visit(event);
    }
    return whole;
}

}  // namespace quorvix::report
