#include "swivex/BundleWriter.h"

#include <algorithm>
#include <array>
#include <span>

#include "swivex/Utf8.h"

namespace quorvix::swivex {

namespace {

// Field numbers of the messages that are written here.
constexpr std::uint32_t kFtraceEvents = 1;  // of a packet
namespace bundle {
constexpr std::uint32_t kCpu = 1, kEvent = 2, kLostEvents = 3, kCompactSched = 4, kClock = 5, kMonotonic = 6, kBoot = 7;
constexpr std::uint64_t kGlobalClock = 2;
}  // namespace bundle
namespace event {
constexpr std::uint32_t kTimestamp = 1, kPid = 2, kPrint = 3, kSchedSwitch = 4, kSchedWaking = 20,
                        kSchedWakeupNew = 114, kGeneric = 327;
}
namespace compact {
constexpr std::uint32_t kInternTable = 5;
constexpr std::uint32_t kSwitchTimestamp = 1, kSwitchPrevState = 2, kSwitchNextPid = 3, kSwitchNextPrio = 4,
                        kSwitchNextComm = 6;
constexpr std::uint32_t kWakingTimestamp = 7, kWakingPid = 8, kWakingTargetCpu = 9, kWakingPrio = 10, kWakingComm = 11,
                        kWakingFlags = 12;
}  // namespace compact

// Events that have a message of their own in the format: the kernel's field names and their numbers there.
struct NativeField {
    std::string_view name;
    std::uint32_t number;
};
struct NativeEvent {
    std::string_view name;
    std::uint32_t number;
    std::array<NativeField, 4> fields;
};
constexpr std::array<NativeEvent, 5> kNativeEvents = {{
    {"task_newtask", 235, {{{"pid", 1}, {"comm", 2}, {"clone_flags", 3}, {"oom_score_adj", 4}}}},
    {"task_rename", 236, {{{"pid", 1}, {"oldcomm", 2}, {"newcomm", 3}, {"oom_score_adj", 4}}}},
    {"sched_process_exec", 237, {{{"filename", 1}, {"pid", 2}, {"old_pid", 3}, {}}}},
    {"sched_process_exit", 238, {{{"comm", 1}, {"pid", 2}, {"prio", 4}, {}}}},
    {"sched_process_fork", 239, {{{"parent_comm", 1}, {"parent_pid", 2}, {"child_comm", 3}, {"child_pid", 4}}}},
}};

void writeNative(PacketWriter& writer, const NativeEvent& native, const Event& source) {
    writer.message(native.number, [&] {
        for (const NativeField& field : native.fields) {
            const auto fields = source.allFields();
            const auto found = std::ranges::find(fields, field.name, &EventField::name);
            if (field.number == 0 || found == fields.end()) continue;
            if (found->isText) {
                writer.text(field.number, validUtf8(found->text));
            } else {
                writer.signedNumber(field.number, found->number);
            }
        }
    });
}

void writeGeneric(PacketWriter& writer, const Event& source) {
    constexpr std::uint32_t kName = 1, kField = 2, kFieldName = 1, kFieldText = 3, kSigned = 4, kUnsigned = 5;
    writer.message(event::kGeneric, [&] {
        writer.text(kName, validUtf8(source.name));
        for (const EventField& field : source.allFields()) {
            writer.message(kField, [&] {
                writer.text(kFieldName, validUtf8(field.name));
                if (field.isText) {
                    writer.text(kFieldText, validUtf8(field.text));
                } else {
                    writer.signedNumber(field.isSigned ? kSigned : kUnsigned, field.number);
                }
            });
        }
    });
}

void writeBody(PacketWriter& writer, const Event& source) {
    switch (source.kind) {
        case EventKind::schedSwitch:
            writer.message(event::kSchedSwitch, [&] {
                writer.text(1, validUtf8(source.prevComm));
                writer.signedNumber(2, source.prevPid);
                writer.signedNumber(3, source.prevPrio);
                writer.signedNumber(4, source.prevState);
                writer.text(5, validUtf8(source.nextComm));
                writer.signedNumber(6, source.nextPid);
                writer.signedNumber(7, source.nextPrio);
            });
            return;
        case EventKind::schedWaking:
        case EventKind::schedWakeupNew:
            writer.message(source.kind == EventKind::schedWaking ? event::kSchedWaking : event::kSchedWakeupNew, [&] {
                writer.text(1, validUtf8(source.nextComm));
                writer.signedNumber(2, source.nextPid);
                writer.signedNumber(3, source.nextPrio);
                writer.signedNumber(5, source.targetCpu);
            });
            return;
        case EventKind::print:
            // Not the address that it was written from: the file is readable by others than who may see that.
            writer.message(event::kPrint, [&] { writer.text(2, validUtf8(source.text)); });
            return;
        case EventKind::other: break;
    }
    const auto native = std::ranges::find(kNativeEvents, source.name, &NativeEvent::name);
    native == kNativeEvents.end() ? writeGeneric(writer, source) : writeNative(writer, *native, source);
}

}  // namespace

void BundleWriter::add(const Event& event) {
    if (count_ == 0) firstNs_ = event.timeNs;
    switch (event.kind) {
        case EventKind::schedSwitch: addSwitch(event); break;
        case EventKind::schedWaking: addWaking(event); break;
        case EventKind::schedWakeupNew:
        case EventKind::print:
        case EventKind::other: addPlain(event); break;
    }
    ++events_;
    if (++count_ == kMostEvents || plain_.size() >= kMostPlainBytes) flush();
}

void BundleWriter::lost() {
    flush();
    lost_ = true;
    running_.reset();
}

std::uint64_t BundleWriter::indexOf(std::string_view comm) {
    const auto [place, isNew] = commIndexes_.try_emplace(std::string(comm), comms_.size());
    if (isNew) comms_.emplace_back(validUtf8(comm));
    return place->second;
}

void BundleWriter::addSwitch(const Event& event) {
    // Priorities are never negative but for deadline threads, which a column can't hold.
    const bool fits = running_ == event.prevPid && event.nextPrio >= 0 && event.prevState >= 0;
    running_ = event.nextPid;
    if (!fits) return addPlain(event);
    switches_.timestamp.add(event.timeNs - switches_.lastNs);
    switches_.lastNs = event.timeNs;
    switches_.prevState.add(static_cast<std::uint64_t>(event.prevState));
    switches_.nextPid.add(static_cast<std::uint64_t>(event.nextPid));
    switches_.nextPrio.add(static_cast<std::uint64_t>(event.nextPrio));
    switches_.nextComm.add(indexOf(event.nextComm));
}

void BundleWriter::addWaking(const Event& event) {
    if (event.nextPrio < 0 || event.targetCpu < 0) return addPlain(event);
    wakings_.timestamp.add(event.timeNs - wakings_.lastNs);
    wakings_.lastNs = event.timeNs;
    wakings_.pid.add(static_cast<std::uint64_t>(event.nextPid));
    wakings_.targetCpu.add(static_cast<std::uint64_t>(event.targetCpu));
    wakings_.prio.add(static_cast<std::uint64_t>(event.nextPrio));
    wakings_.comm.add(indexOf(event.nextComm));
    wakings_.commonFlags.add(event.commonFlags);
}

void BundleWriter::addPlain(const Event& event) {
    plain_.message(bundle::kEvent, [&] {
        plain_.number(event::kTimestamp, event.timeNs);
        plain_.signedNumber(event::kPid, event.pid);
        writeBody(plain_, event);
    });
}

void BundleWriter::flush() {
    if (count_ == 0) return;
    file_.packet(Sequence::events, 0, firstNs_, [&](PacketWriter& writer) {
        writer.message(kFtraceEvents, [&] {
            writer.number(bundle::kCpu, cpu_);
            writer.append(plain_.encoded());
            if (lost_) writer.number(bundle::kLostEvents, 1);
            if (!comms_.empty()) {
                writer.message(bundle::kCompactSched, [&] {
                    for (const std::string& comm : comms_) writer.text(compact::kInternTable, comm);
                    const auto column = [&](std::uint32_t field, Column& values) {
                        if (!values.bytes.empty()) writer.bytes(field, values.bytes);
                        values.bytes.clear();
                    };
                    column(compact::kSwitchTimestamp, switches_.timestamp);
                    column(compact::kSwitchPrevState, switches_.prevState);
                    column(compact::kSwitchNextPid, switches_.nextPid);
                    column(compact::kSwitchNextPrio, switches_.nextPrio);
                    column(compact::kSwitchNextComm, switches_.nextComm);
                    column(compact::kWakingTimestamp, wakings_.timestamp);
                    column(compact::kWakingPid, wakings_.pid);
                    column(compact::kWakingTargetCpu, wakings_.targetCpu);
                    column(compact::kWakingPrio, wakings_.prio);
                    column(compact::kWakingComm, wakings_.comm);
                    column(compact::kWakingFlags, wakings_.commonFlags);
                });
            }
            writer.number(bundle::kClock, bundle::kGlobalClock);
            writer.number(bundle::kMonotonic, clocks_.monotonicNs);
            writer.number(bundle::kBoot, clocks_.bootNs);
        });
    });
    // Each bundle stands by itself: its first times are whole, its names its own.
    count_ = 0;
    lost_ = false;
    plain_.clear();
    commIndexes_.clear();
    comms_.clear();
    switches_.lastNs = 0;
    wakings_.lastNs = 0;
}

}  // namespace quorvix::swivex
