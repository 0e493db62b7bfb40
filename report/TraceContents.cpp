#include "report/TraceContents.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <utility>

namespace quorvix::report {

namespace {

using Kind = ProtoField::Kind;

constexpr std::string_view kPrefix = "com.norvane.quorvix.";
constexpr std::string_view kEndMark = "end";

constexpr std::uint32_t kProcessTree = 2;
constexpr std::uint32_t kClockSnapshot = 6;
constexpr std::uint32_t kTimestamp = 8;
constexpr std::uint32_t kSequence = 10;
constexpr std::uint32_t kSequenceFlags = 13;
constexpr std::uint32_t kInternedData = 12;
constexpr std::uint32_t kSystemInfo = 45;
constexpr std::uint32_t kAttributes = 126;
constexpr std::uint32_t kStackSample = 135;

constexpr std::uint64_t kIncrementalStateCleared = 1;
constexpr std::uint64_t kRealtime = 1;
constexpr std::uint64_t kMonotonic = 3;

// Goes through a message; false when it is damaged or the visitor says so.
template <class Visit>
bool forEachField(Bytes message, Visit visit) {
    ProtoFields fields(message);
    ProtoField field;
    while (fields.next(field)) {
        if (!visit(field)) return false;
    }
    return !fields.damaged();
}

std::string_view lastComponent(std::string_view path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string_view::npos || slash + 1 == path.size() ? path : path.substr(slash + 1);
}

}  // namespace

bool TraceContents::hasRoom(std::size_t used, std::size_t limit) {
    if (used < limit) return true;
    ++leftOut_;
    return false;
}

void TraceContents::add(Bytes packet) {
    ++packets_;
    if (!takePacket(packet)) ++damagedPackets_;
}

void TraceContents::finish(const PacketScan& scan) {
    if (scan.end != PacketScan::End::clean) {
        incomplete_ = scan.problem;
    } else if (scan.packets == 0) {
        incomplete_ = "the file is empty";
    } else if (!endMark_) {
        incomplete_ = "the file ends without its end mark";
    } else if (packetsAtEndMark_ != scan.packets) {
        incomplete_ = "the file goes on after its end mark";
    } else if (*endMark_ < 0 || static_cast<std::uint64_t>(*endMark_) != scan.packets) {
        incomplete_ =
            "the end mark counts " + std::to_string(*endMark_) + " packets, there are " + std::to_string(scan.packets);
    } else if (damagedPackets_ != 0) {
        incomplete_ = std::to_string(damagedPackets_) + " packets are damaged";
    } else {
        incomplete_.clear();
    }
}

bool TraceContents::takePacket(Bytes packet) {
    std::uint64_t sequence = 0;
    std::uint64_t flags = 0;
    std::uint64_t timeNs = 0;
    Bytes interned;
    Bytes sample;
    bool whole = forEachField(packet, [&](const ProtoField& field) {
        if (field.kind == Kind::varint) {
            if (field.number == kSequence) sequence = field.value;
            if (field.number == kSequenceFlags) flags = field.value;
            if (field.number == kTimestamp) timeNs = field.value;
            return true;
        }
        if (field.kind != Kind::bytes) return true;
        switch (field.number) {
            case kAttributes: return takeAttributes(field.bytes);
            case kClockSnapshot: return takeClocks(field.bytes);
            case kSystemInfo: return takeSystem(field.bytes);
            case kProcessTree: return takeTree(field.bytes);
            case kInternedData: interned = field.bytes; return true;
            case kStackSample: sample = field.bytes; return true;
            default: return true;
        }
    });
    // Order matters: a packet may clear its sequence's tables, fill them, and use them.
    if ((flags & kIncrementalStateCleared) != 0) tablesOfSequence_.erase(sequence);
    if (!interned.empty()) whole = takeInterned(interned, sequence) && whole;
    if (!sample.empty()) whole = takeSample(sample, sequence, timeNs) && whole;
    return whole;
}

bool TraceContents::takeAttributes(Bytes message) {
    return forEachField(message, [&](const ProtoField& attribute) {
        if (attribute.number != 1 || attribute.kind != Kind::bytes) return true;
        std::string_view key;
        std::optional<std::int64_t> number;
        std::optional<std::string_view> text;
        if (!forEachField(attribute.bytes, [&](const ProtoField& field) {
                if (field.number == 1 && field.kind == Kind::bytes) key = field.text();
                if (field.number == 2 && field.kind == Kind::varint) number = field.asSigned();
                if (field.number == 3 && field.kind == Kind::bytes) text = field.text();
                return true;
            })) {
            return false;
        }
        if (!key.starts_with(kPrefix)) return true;
        key.remove_prefix(kPrefix.size());
        if (key == kEndMark && number) {
            endMark_ = number;
            packetsAtEndMark_ = packets_;
            return true;
        }
        if (!hasRoom(numbers_.size() + texts_.size(), kMostAttributes)) return true;
        // The first one counts: what comes later in the file can't overwrite it.
        if (number) numbers_.emplace(key, *number);
        if (text && hasRoom(text->size(), kLongestText)) texts_.emplace(key, *text);
        return true;
    });
}

bool TraceContents::takeClocks(Bytes message) {
    return forEachField(message, [&](const ProtoField& clock) {
        if (clock.number != 1 || clock.kind != Kind::bytes) return true;
        std::uint64_t id = 0;
        std::uint64_t time = 0;
        const bool whole = forEachField(clock.bytes, [&](const ProtoField& field) {
            if (field.number == 1) id = field.value;
            if (field.number == 2) time = field.value;
            return true;
        });
        if (whole && (id == kRealtime || id == kMonotonic)) clocks_.emplace(id, time);
        return whole;
    });
}

bool TraceContents::takeSystem(Bytes message) {
    return forEachField(message, [&](const ProtoField& field) {
        if (field.number == 8 && field.kind == Kind::varint) cpus_ = field.value;
        if (field.number != 1 || field.kind != Kind::bytes) return true;
        return forEachField(field.bytes, [&](const ProtoField& part) {
            if (part.kind != Kind::bytes || part.bytes.size() > 1024) return true;
            if (part.number == 2) kernelVersion_ = part.text();
            if (part.number == 3) kernelRelease_ = part.text();
            return true;
        });
    });
}

bool TraceContents::takeTree(Bytes message) {
    return forEachField(message, [&](const ProtoField& entry) {
        if (entry.kind != Kind::bytes || (entry.number != 1 && entry.number != 2)) return true;
        const bool isProcess = entry.number == 1;
        std::int32_t id = kNoThread;
        std::int32_t pid = kNoThread;
        std::string_view name;
        bool hasName = false;
        const bool whole = forEachField(entry.bytes, [&](const ProtoField& field) {
            if (field.number == 1) id = field.asId();
            if (field.number == 3 && !isProcess) pid = field.asId();
            // A process has one a word of its command line; the first is its program.
            if (field.number == (isProcess ? 3U : 2U) && field.kind == Kind::bytes && !std::exchange(hasName, true)) {
                name = field.text().substr(0, 4096);
            }
            return true;
        });
        if (!whole) return false;
        if (id < 0 || !hasRoom(threads_.size() + programs_.size(), kMostThreads)) return true;
        if (isProcess) {
            programs_.emplace(id, name);
        } else {
            threads_.emplace(id, ThreadName{.pid = pid, .name = std::string(name)});
        }
        return true;
    });
}

bool TraceContents::takeInterned(Bytes message, std::uint64_t sequence) {
    if (!tablesOfSequence_.contains(sequence)) {
        if (!hasRoom(interned_.size(), kMostTables)) return true;
        tablesOfSequence_.emplace(sequence, interned_.size());
        interned_.emplace_back();
    }
    Interned& tables = interned_[tablesOfSequence_[sequence]];
    return forEachField(message, [&](const ProtoField& entry) {
        if (entry.kind != Kind::bytes) return true;
        std::uint64_t iid = 0;
        std::string_view text;
        InternedFrame frame;
        Mapping mapping;
        std::vector<std::uint64_t> list;
        const bool whole = forEachField(entry.bytes, [&](const ProtoField& field) {
            if (field.number == 1 && field.kind == Kind::varint) iid = field.value;
            switch (entry.number) {
                case 5:
                case 16:
                case 17:
                    if (field.number == 2 && field.kind == Kind::bytes) text = field.text().substr(0, 4096);
                    break;
                case 6:
                    if (field.number == 2) frame.name = field.value;
                    if (field.number == 3) frame.mapping = field.value;
                    if (field.number == 4) frame.relativePc = field.value;
                    break;
                case 7:
                    if (field.number == 2 && field.kind == Kind::varint && list.size() < kMostFrames) {
                        list.push_back(field.value);
                    }
                    break;
                case 19:
                    if (field.number == 2) mapping.buildId = field.value;
                    if (field.number == 7 && mapping.path.size() < 64) mapping.path.push_back(field.value);
                    break;
                default: break;
            }
            return true;
        });
        if (!whole) return false;
        if (!hasRoom(internedEntries_, kMostInterned)) return true;
        ++internedEntries_;
        switch (entry.number) {
            case 5: tables.names.insert_or_assign(iid, std::string(text)); break;
            case 6: tables.frames.insert_or_assign(iid, frame); break;
            case 7: tables.callstacks.insert_or_assign(iid, std::move(list)); break;
            case 16: tables.buildIds.insert_or_assign(iid, std::string(text)); break;
            case 17: tables.paths.insert_or_assign(iid, std::string(text)); break;
            case 19: tables.mappings.insert_or_assign(iid, std::move(mapping)); break;
            default: --internedEntries_; break;
        }
        return true;
    });
}

bool TraceContents::takeSample(Bytes message, std::uint64_t sequence, std::uint64_t timeNs) {
    StackSample sample;
    const auto known = tablesOfSequence_.find(sequence);
    sample.tables = known == tablesOfSequence_.end() ? interned_.size() + kMostTables : known->second;
    sample.timeNs = timeNs;
    const bool whole = forEachField(message, [&](const ProtoField& field) {
        if (field.number == 6 && field.kind == Kind::varint) sample.callstack = field.value;
        if (field.number == 7 && field.kind == Kind::bytes) sample.problem = field.text().substr(0, 1024);
        if (field.number != 1 || field.kind != Kind::bytes) return true;
        return forEachField(field.bytes, [&](const ProtoField& part) {
            if (part.number == 2) sample.pid = part.asId();
            if (part.number == 3) sample.tid = part.asId();
            return true;
        });
    });
    if (whole && hasRoom(samples_.size(), kMostSamples)) samples_.push_back(std::move(sample));
    return whole;
}

std::vector<Frame> TraceContents::framesOf(const StackSample& sample) const {
    std::vector<Frame> frames;
    if (sample.tables >= interned_.size()) return frames;
    const Interned& interned = interned_[sample.tables];
    const auto callstack = interned.callstacks.find(sample.callstack);
    if (callstack == interned.callstacks.end()) return frames;
    const auto textAt = [](const auto& texts, std::uint64_t iid) {
        const auto found = texts.find(iid);
        return found == texts.end() ? std::string() : found->second;
    };
    // The file has the outermost first.
    for (auto iid = callstack->second.rbegin(); iid != callstack->second.rend(); ++iid) {
        const auto found = interned.frames.find(*iid);
        if (found == interned.frames.end()) continue;
        Frame frame;
        frame.name = textAt(interned.names, found->second.name);
        frame.relativePc = found->second.relativePc;
        const auto mapping = interned.mappings.find(found->second.mapping);
        if (mapping != interned.mappings.end()) {
            for (const std::uint64_t part : mapping->second.path) {
                frame.modulePath += '/';
                frame.modulePath += textAt(interned.paths, part);
            }
            const std::string buildId = textAt(interned.buildIds, mapping->second.buildId);
            frame.buildId.assign(buildId.begin(), buildId.end());
        }
        frames.push_back(std::move(frame));
    }
    return frames;
}

std::optional<std::int64_t> TraceContents::number(std::string_view key) const {
    const auto found = numbers_.find(key);
    return found == numbers_.end() ? std::nullopt : std::optional(found->second);
}

const std::string* TraceContents::text(std::string_view key) const {
    const auto found = texts_.find(key);
    return found == texts_.end() ? nullptr : &found->second;
}

std::optional<std::int32_t> TraceContents::hungPid() const {
    const auto id = number("hung_pid");
    return id && *id > 0 && *id <= INT32_MAX ? std::optional(static_cast<std::int32_t>(*id)) : std::nullopt;
}

std::optional<std::int32_t> TraceContents::hungTid() const {
    const auto id = number("hung_tid");
    return id && *id > 0 && *id <= INT32_MAX ? std::optional(static_cast<std::int32_t>(*id)) : std::nullopt;
}

std::optional<Interval> TraceContents::window() const {
    const auto begin = number("asked_begin_ns");
    const auto end = number("asked_end_ns");
    if (!begin || !end || *begin < 0 || *end <= *begin) return std::nullopt;
    return Interval{static_cast<std::uint64_t>(*begin), static_cast<std::uint64_t>(*end)};
}

Interval TraceContents::covered() const {
    const auto begin = number("covered_begin_ns").value_or(0);
    const auto end = number("covered_end_ns").value_or(0);
    if (begin < 0 || end <= begin) return {};
    return {static_cast<std::uint64_t>(begin), static_cast<std::uint64_t>(end)};
}

ThreadHints TraceContents::hints() const {
    ThreadHints hints;
    if (const auto left = number("hung_left_ns"); left && *left > 0) hints.leftNs = static_cast<std::uint64_t>(*left);
    if (const std::string* state = text("hung_left_state"); state != nullptr && !state->empty()) {
        hints.leftState = stateOfLetter(state->front());
    }
    return hints;
}

std::map<std::uint32_t, std::uint64_t> TraceContents::clampedSwitches() const {
    constexpr std::string_view kClamped = "clamped.cpu";
    std::map<std::uint32_t, std::uint64_t> clamped;
    for (auto entry = numbers_.lower_bound(kClamped); entry != numbers_.end() && entry->first.starts_with(kClamped);
         ++entry) {
        std::uint32_t cpu = 0;
        const char* const end = entry->first.data() + entry->first.size();
        const auto parsed = std::from_chars(entry->first.data() + kClamped.size(), end, cpu);
        if (parsed.ec == std::errc() && parsed.ptr == end && entry->second > 0) {
            clamped.emplace(cpu, static_cast<std::uint64_t>(entry->second));
        }
    }
    return clamped;
}

std::optional<std::int64_t> TraceContents::realtimeNs(std::uint64_t monotonicNs) const {
    const auto realtime = clocks_.find(kRealtime);
    const auto monotonic = clocks_.find(kMonotonic);
    if (realtime == clocks_.end() || monotonic == clocks_.end()) return std::nullopt;
    // Unsigned, so that hostile clocks wrap instead of overflowing.
    return static_cast<std::int64_t>(realtime->second - monotonic->second + monotonicNs);
}

const ThreadName* TraceContents::thread(std::int32_t tid) const {
    const auto found = threads_.find(tid);
    return found == threads_.end() ? nullptr : &found->second;
}

std::vector<std::int32_t> TraceContents::threadsOf(std::int32_t pid) const {
    std::vector<std::int32_t> tids;
    for (const auto& [tid, thread] : threads_) {
        if (thread.pid == pid) tids.push_back(tid);
    }
    std::ranges::sort(tids);
    return tids;
}

std::string TraceContents::processName(std::int32_t pid) const {
    const auto program = programs_.find(pid);
    if (program != programs_.end() && !program->second.empty()) return std::string(lastComponent(program->second));
    const ThreadName* main = thread(pid);
    return main != nullptr ? main->name : std::string();
}

}  // namespace quorvix::report
