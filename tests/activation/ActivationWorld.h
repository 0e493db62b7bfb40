#pragma once

#include <string>
#include <vector>

#include "activation/AppActivation.h"
#include "tests/support/DaemonWorld.h"

namespace quorvix::test {

// A typed form of what is sent to the power log, so that whole events are compared with their types and order: d
// double, i signed, u unsigned, b one byte.
inline std::string typed(const PowerLogDictionary& dictionary);

inline std::string typed(const PowerLogValue& value) {
    const auto form = [&value](const auto& content) -> std::string {
        using Content = std::decay_t<decltype(content)>;
        if constexpr (std::same_as<Content, PowerLogDictionary>) {
            return typed(content);
        } else if constexpr (std::same_as<Content, std::string>) {
            return content;
        } else {
            std::string text;
            appendTextForm(text, value);
            if constexpr (std::same_as<Content, double>) return "d" + text;
            if constexpr (std::same_as<Content, std::int64_t>) return "i" + text;
            if constexpr (std::same_as<Content, std::uint64_t>) return "u" + text;
            if constexpr (std::same_as<Content, std::uint8_t>) return "b" + text;
            return text;
        }
    };
    return std::visit(form, value.content());
}

inline std::string typed(const PowerLogKey& key) {
    if (const auto* number = std::get_if<std::int64_t>(&key)) return "i" + std::to_string(*number);
    if (const auto* number = std::get_if<std::uint64_t>(&key)) return "u" + std::to_string(*number);
    return std::get<std::string>(key);
}

inline std::string typed(const PowerLogDictionary& dictionary) {
    std::string text = "{";
    for (const auto& [key, value] : dictionary.entries()) {
        if (text.size() > 1) text += ", ";
        text += typed(key) + ": " + typed(value);
    }
    return text + "}";
}

// A device on which activations are tracked, recorded and rendered; its wall clock stands at a whole second, so that
// now is a whole number of milliseconds. A tick is a millisecond.
class ActivationWorld : public DaemonWorld {
protected:
    using Lines = std::vector<std::string>;

    // The simulated device's start, in milliseconds since 2001.
    static constexpr std::uint64_t kNow = 790'171'200'000;
    static constexpr std::int32_t kPid = 412;
    static constexpr const char* kBundle = "com.norvane.mail";

    ActivationWorld() {
        device.queues.giveMainThread();
        device.processes.tasks = {{.pid = 0, .name = "kernel"}, {.pid = kPid, .name = "Mail"}};
    }

    // Every line since the log was cleared, with its level: "info: text"; those of the signpost log begin with
    // "appLaunch ". Our own of every recorded activation is left out (its own test looks at it).
    Lines lines() {
        static constexpr const char* kLevels[] = {"default: ", "info: ", "debug: "};
        Lines found;
        for (const auto& line : device.log.lines()) {
            if (line.category == "platform" && line.text.starts_with("Activation recorded: ")) continue;
            const std::string category = line.category.empty() ? "" : line.category + " ";
            found.push_back(category + kLevels[static_cast<std::size_t>(line.level)] + line.text);
        }
        return found;
    }
    // Without the record's lines about latencies and flags, which the record's own tests look at.
    Lines trackerLines() {
        Lines found;
        for (std::string& line : lines()) {
            const bool ofRecord = line.starts_with("debug: QXActivationStats: Value to insert:") ||
                                  line.starts_with("debug: QXActivationStats: Latency to get");
            if (!ofRecord) found.push_back(std::move(line));
        }
        return found;
    }
    template <class Act>
    Lines trackerLinesOf(Act act) {
        device.log.clear();
        act();
        return trackerLines();
    }
    bool hasLine(std::string_view wanted) {
        for (const std::string& line : lines()) {
            if (line == wanted) return true;
        }
        return false;
    }
    // The first line that begins so, or nothing.
    std::string lineWith(std::string_view beginning) {
        for (const std::string& line : lines()) {
            if (line.starts_with(beginning)) return line;
        }
        return "";
    }

    AppActivationTracker& tracker() { return AppActivationTracker::sharedInstance(); }
    struct Begin {
        std::int32_t pid = kPid;
        std::string bundleID = kBundle;
        std::uint64_t time = kNow;
        std::uint64_t vexStartTime = kNow;
        std::int32_t state = 1;
        std::int32_t type = 1;
        std::int32_t sender = AppActivationTracker::kUnknownSender;
    };
    struct End {
        std::int32_t pid = kPid;
        std::string bundleID = kBundle;
        std::uint64_t time = kNow;
        std::int32_t state = 1;
        std::int32_t result = 0;
        std::int32_t sender = AppActivationTracker::kUnknownSender;
    };
    void queueBegin(const Begin& begin) {
        tracker().beginAppActivationTrackingForPID(begin.pid, begin.bundleID, begin.time, begin.vexStartTime,
                                                   begin.state, begin.type, begin.sender);
    }
    void queueEnd(const End& end) {
        tracker().endAppActivationTrackingForPID(end.pid, end.bundleID, end.time, end.state, end.result, end.sender);
    }
    void begin() { begin(Begin{}); }
    void begin(const Begin& begin) {
        queueBegin(begin);
        device.scheduler.runPending();
    }
    void end() { end(End{}); }
    void end(const End& end) {
        queueEnd(end);
        device.scheduler.runPending();
    }

    std::uint32_t recorded() { return activationState().activationsRecordedCount; }
    std::uint64_t open() { return tracker().counters().openActivations; }
    // What was sent under one event name, typed, in order.
    Lines sent(std::string_view name) {
        Lines found;
        for (const auto& event : device.powerLog.events()) {
            if (event.name == name) found.push_back(typed(event.dictionary));
        }
        return found;
    }
    std::size_t sentCount() { return sent("ActivationData").size(); }
};

}  // namespace quorvix::test
