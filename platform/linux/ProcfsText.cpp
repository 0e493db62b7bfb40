#include "platform/linux/ProcfsText.h"

#include <array>
#include <charconv>

namespace quorvix::linuxos {

namespace {

// Numbers separated by blanks, one after the other.
class Numbers {
public:
    explicit Numbers(std::string_view text) : next_(text.data()), end_(text.data() + text.size()) {}

    template <class T>
    bool take(T& value) {
        while (next_ != end_ && (*next_ == ' ' || *next_ == '\t')) ++next_;
        const auto [after, error] = std::from_chars(next_, end_, value);
        next_ = after;
        return error == std::errc();
    }
    bool skip(int count) {
        for (; count > 0; --count) {
            while (next_ != end_ && *next_ == ' ') ++next_;
            if (next_ == end_) return false;
            while (next_ != end_ && *next_ != ' ') ++next_;
        }
        return true;
    }

private:
    const char* next_;
    const char* end_;
};

}  // namespace

std::optional<StatText> parseStat(std::string_view text) {
    const std::size_t open = text.find('(');
    // The last one: a name can hold brackets, and nothing behind it does.
    const std::size_t close = text.rfind(')');
    if (open == std::string_view::npos || close == std::string_view::npos || close < open) return std::nullopt;
    StatText stat{};
    stat.comm = text.substr(open + 1, close - open - 1);
    Numbers numbers(text.substr(close + 1));
    // Behind the name stand: state, parent, group, session, terminal, its group, flags, minor faults and those of
    // children, major faults and those of children, user and system time and those of children, priority, nice,
    // threads, an unused one, start ... policy.
    const bool complete = numbers.skip(6) && numbers.take(stat.flags) && numbers.skip(2) &&
                          numbers.take(stat.majorFaults) && numbers.skip(1) && numbers.take(stat.userTicks) &&
                          numbers.take(stat.systemTicks) && numbers.skip(3) && numbers.take(stat.nice) &&
                          numbers.take(stat.threadCount) && numbers.skip(1) && numbers.take(stat.startUnits) &&
                          numbers.skip(18) && numbers.take(stat.policy);
    if (!complete) return std::nullopt;
    return stat;
}

std::optional<std::uint64_t> parseSchedstat(std::string_view text) {
    std::uint64_t runtime = 0;
    if (!Numbers(text).take(runtime)) return std::nullopt;
    return runtime;
}

std::optional<std::uint64_t> numberOfLine(std::string_view text, std::string_view key) {
    for (std::size_t at = text.find(key); at != std::string_view::npos; at = text.find(key, at + 1)) {
        if (at != 0 && text[at - 1] != '\n') continue;
        std::string_view rest = text.substr(at + key.size());
        if (rest.starts_with(':')) {
            rest.remove_prefix(1);
        } else if (!rest.starts_with(' ')) {
            continue;  // a longer key that begins alike
        }
        std::uint64_t value = 0;
        if (!Numbers(rest).take(value)) return std::nullopt;
        return value;
    }
    return std::nullopt;
}

IoText parseIo(std::string_view text) {
    return {.readBytes = numberOfLine(text, "read_bytes").value_or(0),
            .writeBytes = numberOfLine(text, "write_bytes").value_or(0)};
}

StatusText parseStatus(std::string_view text) {
    const std::size_t sizes = text.find("\nVmLck:");
    if (sizes == std::string_view::npos) return {};
    text.remove_prefix(sizes + 1);
    const auto bytes = [&](std::string_view key) { return numberOfLine(text, key).value_or(0) * kKilobyte; };
    return {.locked = bytes("VmLck"),
            .pinned = bytes("VmPin"),
            .resident = bytes("VmRSS"),
            .anonymous = bytes("RssAnon"),
            .swapped = bytes("VmSwap")};
}

}  // namespace quorvix::linuxos
