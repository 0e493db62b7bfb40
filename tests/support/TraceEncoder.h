#pragma once

#include <zlib.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "report/SchedEvents.h"

// Makes trace files for tests, field by field, independent of the code that writes real ones.

namespace quorvix::tests {

// One protobuf message.
class Message {
public:
    Message& number(std::uint32_t field, std::uint64_t value) {
        append(field << 3);
        append(value);
        return *this;
    }
    Message& bytes(std::uint32_t field, std::string_view value) {
        append(field << 3 | 2);
        append(value.size());
        bytes_ += value;
        return *this;
    }
    Message& message(std::uint32_t field, const Message& value) { return bytes(field, value.bytes_); }
    Message& packed(std::uint32_t field, const std::vector<std::uint64_t>& values) {
        if (values.empty()) return *this;
        Message list;
        for (const std::uint64_t value : values) list.append(value);
        return message(field, list);
    }
    void append(std::uint64_t value) {
        for (; value >= 0x80; value >>= 7) bytes_ += static_cast<char>(value | 0x80);
        bytes_ += static_cast<char>(value);
    }
    const std::string& text() const { return bytes_; }

private:
    std::string bytes_;
};

inline std::string deflated(std::string_view plain) {
    uLongf size = compressBound(plain.size());
    std::string packed(size, '\0');
    if (compress(reinterpret_cast<Bytef*>(packed.data()), &size, reinterpret_cast<const Bytef*>(plain.data()),
                 plain.size()) != Z_OK) {
        throw std::runtime_error("deflate");
    }
    packed.resize(size);
    return packed;
}

class TraceEncoder {
public:
    using Event = report::SchedEvent;
    enum class Form { plain, compact };

    TraceEncoder& packet(const Message& content) {
        records_ += Message().message(1, content).text();
        ++packets_;
        return *this;
    }
    TraceEncoder& number(std::string_view key, std::int64_t value) {
        attributes_.message(
            1,
            Message().bytes(1, std::string(kPrefix) + std::string(key)).number(2, static_cast<std::uint64_t>(value)));
        return *this;
    }
    TraceEncoder& text(std::string_view key, std::string_view value) {
        attributes_.message(1, Message().bytes(1, std::string(kPrefix) + std::string(key)).bytes(3, value));
        return *this;
    }
    // What every hang report says of itself.
    TraceEncoder& hang(std::uint64_t beginNs, std::uint64_t endNs, std::int32_t pid, std::int32_t tid) {
        return number("asked_begin_ns", static_cast<std::int64_t>(beginNs))
            .number("asked_end_ns", static_cast<std::int64_t>(endNs))
            .number("hung_pid", pid)
            .number("hung_tid", tid)
            .text("recorder", "mapped");
    }
    TraceEncoder& covered(std::uint64_t beginNs, std::uint64_t endNs) {
        return number("covered_begin_ns", static_cast<std::int64_t>(beginNs))
            .number("covered_end_ns", static_cast<std::int64_t>(endNs));
    }
    // The attributes so far as a packet.
    TraceEncoder& attributes() {
        packet(Message().number(10, 1).message(126, attributes_));
        attributes_ = {};
        return *this;
    }
    TraceEncoder& clocks(std::uint64_t realtimeNs, std::uint64_t monotonicNs) {
        return packet(Message().message(6, Message()
                                               .message(1, Message().number(1, 1).number(2, realtimeNs))
                                               .message(1, Message().number(1, 3).number(2, monotonicNs))));
    }
    TraceEncoder& process(std::int32_t pid, std::string_view program) {
        return packet(Message().message(2, Message().message(1, Message().number(1, id(pid)).bytes(3, program))));
    }
    TraceEncoder& thread(std::int32_t tid, std::int32_t pid, std::string_view name) {
        return packet(
            Message().message(2, Message().message(2, Message().number(1, id(tid)).bytes(2, name).number(3, id(pid)))));
    }

    // Events of one CPU, in the order of their times. Compact: the first switch of the bundle is plain nevertheless.
    TraceEncoder& events(std::uint32_t cpu, const std::vector<Event>& events, Form form = Form::plain) {
        Message bundle;
        bundle.number(1, cpu);
        if (form == Form::plain) {
            for (const Event& event : events) bundle.message(2, plain(event));
            return packet(Message().number(10, 3).message(1, bundle));
        }
        std::vector<std::uint64_t> times, states, nexts, priorities, names, wakeTimes, woken, targets, flags, wakeNames;
        std::uint64_t lastSwitch = 0, lastWaking = 0;
        bool isFirst = true;
        for (const Event& event : events) {
            if (event.kind == Event::Kind::switched && std::exchange(isFirst, false)) {
                bundle.message(2, plain(event));
            } else if (event.kind == Event::Kind::switched) {
                times.push_back(event.timeNs - std::exchange(lastSwitch, event.timeNs));
                states.push_back(event.previousState);
                nexts.push_back(id(event.next));
                priorities.push_back(120);
                names.push_back(0);
            } else {
                wakeTimes.push_back(event.timeNs - std::exchange(lastWaking, event.timeNs));
                woken.push_back(id(event.next));
                targets.push_back(cpu);
                flags.push_back(event.byInterrupt ? 0x08 : 0);
                wakeNames.push_back(0);
            }
        }
        Message compact;
        compact.packed(1, times).packed(2, states).packed(3, nexts).packed(4, priorities);
        compact.bytes(5, "thread").packed(6, names);
        compact.packed(7, wakeTimes)
            .packed(8, woken)
            .packed(9, targets)
            .packed(10, std::vector(woken.size(), std::uint64_t{120}));
        compact.packed(11, wakeNames).packed(12, flags);
        bundle.message(4, compact);
        return packet(Message().number(10, 3).message(1, bundle));
    }

    // Frames innermost first; a user frame as "module+0x12" of /usr/lib/module, a kernel frame as its name.
    struct Frame {
        std::string name;
        bool isKernel = false;
        std::string module = {};
        std::string buildId = {};
        std::uint64_t relativePc = 0;
    };
    TraceEncoder& stack(std::int32_t pid, std::int32_t tid, const std::vector<Frame>& frames,
                        std::string_view problem = {}) {
        Message interned;
        Message callstack;
        callstack.number(1, 1);
        std::uint64_t iid = 0;
        for (const Frame& frame : frames) {
            ++iid;
            Message entry;
            entry.number(1, iid).number(2, iid);
            interned.message(5, Message().number(1, iid).bytes(2, frame.name));
            if (!frame.isKernel) {
                Message mapping;
                mapping.number(1, iid).number(2, iid).number(4, 0x1000).number(5, 0x2000);
                interned.message(16, Message().number(1, iid).bytes(2, frame.buildId));
                std::uint64_t component = 1000 * iid;
                std::string_view path = frame.module;
                while (!path.empty()) {
                    path.remove_prefix(1);
                    const std::string_view part = path.substr(0, path.find('/'));
                    interned.message(17, Message().number(1, ++component).bytes(2, part));
                    mapping.number(7, component);
                    path.remove_prefix(part.size());
                }
                interned.message(19, mapping);
                entry.number(3, iid).number(4, frame.relativePc);
            }
            interned.message(6, entry);
        }
        for (std::uint64_t outer = iid; outer > 0; --outer) callstack.number(2, outer);
        interned.message(7, callstack);
        Message sample;
        sample.message(1, Message().number(2, id(pid)).number(3, id(tid))).number(6, 1);
        if (!problem.empty()) sample.bytes(7, problem);
        return packet(Message().number(8, 1).number(10, 5).number(13, 3).message(12, interned).message(135, sample));
    }

    // What was added since the last call goes into one compressed packet.
    TraceEncoder& compressed() {
        whole_ += Message().message(1, Message().bytes(50, deflated(std::exchange(records_, {})))).text();
        return *this;
    }

    // The file: with its end mark, or without one.
    std::string file() const {
        Message mark;
        mark.message(1, Message().bytes(1, std::string(kPrefix) + "end").number(2, packets_ + 1));
        return unfinished() + Message().message(1, Message().number(10, 1).message(126, mark)).text();
    }
    std::string unfinished() const { return whole_ + records_; }
    std::uint64_t packets() const { return packets_; }

private:
    static constexpr std::string_view kPrefix = "com.norvane.quorvix.";
    static std::uint64_t id(std::int32_t value) { return static_cast<std::uint64_t>(static_cast<std::int64_t>(value)); }

    static Message plain(const Event& event) {
        Message message;
        message.number(1, event.timeNs);
        message.number(2, id(event.previous));
        if (event.kind == Event::Kind::switched) {
            return message.message(4, Message()
                                          .bytes(1, "before")
                                          .number(2, id(event.previous))
                                          .number(3, 120)
                                          .number(4, event.previousState)
                                          .bytes(5, event.nextName.empty() ? "thread" : event.nextName)
                                          .number(6, id(event.next))
                                          .number(7, 120));
        }
        if (event.byInterrupt) message.number(5, 0x08);
        return message.message(20, Message().bytes(1, "thread").number(2, id(event.next)).number(3, 120));
    }

    Message attributes_;
    std::string whole_;
    std::string records_;
    std::uint64_t packets_ = 0;
};

// Short names for the events of a test.
inline report::SchedEvent switched(std::uint64_t timeNs, std::int32_t from, std::uint32_t state, std::int32_t to) {
    report::SchedEvent event;
    event.timeNs = timeNs;
    event.previous = from;
    event.previousState = state;
    event.next = to;
    return event;
}
inline report::SchedEvent woken(std::uint64_t timeNs, std::int32_t by, std::int32_t whom, bool byInterrupt = false) {
    report::SchedEvent event;
    event.kind = report::SchedEvent::Kind::woken;
    event.timeNs = timeNs;
    event.previous = by;
    event.next = whom;
    event.byInterrupt = byInterrupt;
    return event;
}

inline report::Bytes bytesOf(std::string_view text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

}  // namespace quorvix::tests
