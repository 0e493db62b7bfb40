#include "swivex/RingText.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <optional>

namespace quorvix::swivex {

namespace {

template <class Number>
std::optional<Number> wholeNumber(std::string_view text) {
    Number number{};
    const auto parsed = std::from_chars(text.data(), text.data() + text.size(), number);
    if (parsed.ec != std::errc() || parsed.ptr != text.data() + text.size()) return std::nullopt;
    return number;
}

// Takes " key=value" off the end of the text, wherever the key stands last.
std::optional<std::string_view> takeLast(std::string_view& text, std::string_view key) {
    const std::size_t at = text.rfind(key);
    if (at == std::string_view::npos) return std::nullopt;
    const std::string_view value = text.substr(at + key.size());
    text = text.substr(0, at);
    return value;
}

bool takeNumber(std::string_view& text, std::string_view key, std::int32_t& number) {
    const auto value = takeLast(text, key);
    const auto parsed = value ? wholeNumber<std::int32_t>(*value) : std::nullopt;
    if (parsed) number = *parsed;
    return parsed.has_value();
}

bool takeComm(std::string_view text, std::string_view key, std::string& comm) {
    if (!text.starts_with(key)) return false;
    comm = text.substr(key.size());
    return true;
}

// "S", "R+", "D|K": back to the bits that the letters stand for.
std::int64_t stateOf(std::string_view letters) {
    constexpr std::int64_t kPreempted = 0x100;
    std::int64_t state = 0;
    for (const char letter : letters) {
        constexpr std::string_view kLetters = "SDTtXZPI";
        const std::size_t bit = kLetters.find(letter);
        if (bit != std::string_view::npos) state |= std::int64_t{1} << bit;
        if (letter == '+') state |= kPreempted;
    }
    return state;
}

bool parseSwitch(std::string_view body, TextEvent& to) {
    constexpr std::string_view kArrow = " ==> next_comm=";
    std::string_view next = body;
    if (!takeNumber(next, " next_prio=", to.event.nextPrio) || !takeNumber(next, " next_pid=", to.event.nextPid)) {
        return false;
    }
    const std::size_t arrow = next.rfind(kArrow);
    if (arrow == std::string_view::npos) return false;
    to.nextComm = next.substr(arrow + kArrow.size());
    std::string_view prev = next.substr(0, arrow);
    const auto state = takeLast(prev, " prev_state=");
    if (!state) return false;
    to.event.prevState = stateOf(*state);
    return takeNumber(prev, " prev_prio=", to.event.prevPrio) && takeNumber(prev, " prev_pid=", to.event.prevPid) &&
           takeComm(prev, "prev_comm=", to.prevComm);
}

bool parseWaking(std::string_view body, TextEvent& to) {
    return takeNumber(body, " target_cpu=", to.event.targetCpu) && takeNumber(body, " prio=", to.event.nextPrio) &&
           takeNumber(body, " pid=", to.event.nextPid) && takeComm(body, "comm=", to.nextComm);
}

// "1966.240035" in ns.
std::optional<std::uint64_t> timeOf(std::string_view text) {
    const std::size_t point = text.find('.');
    if (point == std::string_view::npos || text.size() - point - 1 != 6) return std::nullopt;
    const auto seconds = wholeNumber<std::uint64_t>(text.substr(0, point));
    const auto micros = wholeNumber<std::uint64_t>(text.substr(point + 1));
    constexpr std::uint64_t kMostSeconds = 9'000'000'000;
    if (!seconds || !micros || *seconds > kMostSeconds) return std::nullopt;
    return *seconds * 1'000'000'000 + *micros * 1000;
}

// Interrupt letters of the flags column as the bits that a binary record has.
std::uint32_t flagsOf(std::string_view column) {
    constexpr std::uint32_t kHardInterrupt = 0x08, kSoftInterrupt = 0x10;
    if (column.size() < 3) return 0;
    switch (column[2]) {
        case 'h': return kHardInterrupt;
        case 's': return kSoftInterrupt;
        case 'H': return kHardInterrupt | kSoftInterrupt;
        default: return 0;
    }
}

// A signal handler's address tells where a process has its code: of no use here, and others may read the file.
std::string withoutAddress(std::string_view body) {
    const std::size_t at = body.find(" sa_handler=");
    if (at == std::string_view::npos) return std::string(body);
    const std::size_t end = std::min(body.find(' ', at + 1), body.size());
    return std::string(body.substr(0, at)).append(body.substr(end));
}

}  // namespace

const Event& TextEvent::view() {
    event.name = name;
    event.prevComm = prevComm;
    event.nextComm = nextComm;
    event.text = text;
    event.fieldCount = 0;
    if (event.kind == EventKind::other) event.addField({.name = "text", .text = text, .isText = true});
    return event;
}

bool parseRingLine(std::string_view line, TextEvent& to) {
    if (line.empty() || line.front() == '#') return false;
    // The running thread's name may hold " [0" or ": " itself; the CPU's column is three digits in brackets behind the
    // pid.
    std::size_t cpu = 0;
    for (;;) {
        cpu = line.find(" [", cpu);
        if (cpu == std::string_view::npos) return false;
        const std::size_t close = line.find("] ", cpu);
        if (close == std::string_view::npos) return false;
        const bool isCpu = wholeNumber<std::uint32_t>(line.substr(cpu + 2, close - cpu - 2)).has_value();
        if (isCpu && close - cpu >= 5) break;
        cpu += 2;
    }
    std::string_view task = line.substr(0, cpu);
    while (task.ends_with(' ')) task.remove_suffix(1);
    const std::size_t dash = task.rfind('-');
    const auto pid = dash == std::string_view::npos ? std::nullopt : wholeNumber<std::int32_t>(task.substr(dash + 1));
    if (!pid) return false;

    std::string_view rest = line.substr(line.find("] ", cpu) + 2);
    const std::string_view flags = rest.substr(0, rest.find(' '));
    rest.remove_prefix(flags.size());
    while (rest.starts_with(' ')) rest.remove_prefix(1);
    const std::size_t afterTime = rest.find(": ");
    if (afterTime == std::string_view::npos) return false;
    const auto time = timeOf(rest.substr(0, afterTime));
    rest.remove_prefix(afterTime + 2);
    const std::size_t afterName = rest.find(": ");
    if (!time || afterName == std::string_view::npos) return false;

    to.event = {};
    to.event.timeNs = *time;
    to.event.pid = *pid;
    to.event.commonFlags = flagsOf(flags);
    to.name = rest.substr(0, afterName);
    std::string_view body = rest.substr(afterName + 2);
    while (body.ends_with(' ') || body.ends_with('\n')) body.remove_suffix(1);
    to.prevComm.clear();
    to.nextComm.clear();
    to.text = withoutAddress(body);
    if (to.name == "sched_switch") {
        to.event.kind = EventKind::schedSwitch;
        return parseSwitch(body, to);
    }
    if (to.name == "sched_waking" || to.name == "sched_wakeup_new") {
        to.event.kind = to.name == "sched_waking" ? EventKind::schedWaking : EventKind::schedWakeupNew;
        return parseWaking(body, to);
    }
    // The marker's lines stand under the function that wrote them.
    to.event.kind =
        to.name.starts_with("tracing_mark_write") || to.name == "print" ? EventKind::print : EventKind::other;
    return true;
}

}  // namespace quorvix::swivex
