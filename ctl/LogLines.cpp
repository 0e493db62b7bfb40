#include "ctl/LogLines.h"

#include <charconv>
#include <chrono>
#include <cstdint>
#include <nlohmann/json.hpp>

namespace quorvix::ctl {

namespace {

// A text, or a list of bytes where it is no UTF-8; a list of texts where the field came twice: then the first.
std::string fieldOf(const nlohmann::json& entry, const char* name) {
    const auto found = entry.find(name);
    if (found == entry.end()) return {};
    if (found->is_string()) return found->get<std::string>();
    if (!found->is_array() || found->empty()) return {};
    if (found->front().is_string()) return found->front().get<std::string>();
    std::string bytes;
    for (const nlohmann::json& byte : *found) {
        if (byte.is_number_unsigned()) bytes += static_cast<char>(byte.get<std::uint64_t>() & 0xff);
    }
    return bytes;
}

std::string levelOf(const std::string& priority) {
    if (priority == "7") return "debug";
    return priority == "6" ? "info" : "default";
}

std::string padded(std::int64_t number, std::size_t width) {
    std::string digits = std::to_string(number);
    if (digits.size() < width) digits.insert(0, width - digits.size(), '0');
    return digits;
}

std::string timeOf(const std::string& microseconds) {
    std::int64_t since1970 = 0;
    const auto [end, error] =
        std::from_chars(microseconds.data(), microseconds.data() + microseconds.size(), since1970);
    if (error != std::errc() || end != microseconds.data() + microseconds.size() || since1970 < 0) return {};
    using namespace std::chrono;
    const sys_time<std::chrono::microseconds> at{std::chrono::microseconds(since1970)};
    const auto day = floor<days>(at);
    const year_month_day date(day);
    const hh_mm_ss time(floor<milliseconds>(at - day));
    return padded(static_cast<int>(date.year()), 4) + "-" + padded(static_cast<unsigned>(date.month()), 2) + "-" +
           padded(static_cast<unsigned>(date.day()), 2) + "T" + padded(time.hours().count(), 2) + ":" +
           padded(time.minutes().count(), 2) + ":" + padded(time.seconds().count(), 2) + "." +
           padded(time.subseconds().count(), 3) + "Z";
}

}  // namespace

std::optional<LogLine> logLineOfJournal(std::string_view json) {
    const nlohmann::json entry = nlohmann::json::parse(json, nullptr, false);
    if (!entry.is_object()) return std::nullopt;
    LogLine line{.time = timeOf(fieldOf(entry, "__REALTIME_TIMESTAMP")),
                 .level = levelOf(fieldOf(entry, "PRIORITY")),
                 .category = fieldOf(entry, "QUORVIX_CATEGORY"),
                 .message = fieldOf(entry, "MESSAGE"),
                 .event = fieldOf(entry, "MESSAGE_ID"),
                 .reason = fieldOf(entry, "QUORVIX_REASON"),
                 .daemon = fieldOf(entry, "_PID")};
    if (line.message.empty()) return std::nullopt;
    return line;
}

std::optional<LogLine> logLineOfText(std::string_view text) {
    for (const std::string_view level : {"default", "info", "debug"}) {
        const std::string mark = "<" + std::string(level) + "> ";
        const std::size_t at = text.find(mark);
        // The mark of the line itself, and none that an app put into a name: no other stands before it.
        if (at == std::string_view::npos || text.substr(0, at).find('<') != std::string_view::npos) continue;
        LogLine line{.time = {},
                     .level = std::string(level),
                     .category = {},
                     .message = {},
                     .event = {},
                     .reason = {},
                     .daemon = {}};
        std::string_view before = text.substr(0, at);
        while (before.ends_with(' ')) before.remove_suffix(1);
        line.time = before;
        std::string_view rest = text.substr(at + mark.size());
        constexpr std::string_view kPlatform = "[platform] ";
        if (rest.starts_with(kPlatform)) {
            line.category = "platform";
            rest.remove_prefix(kPlatform.size());
        }
        line.message = rest;
        if (!line.message.empty()) return line;
    }
    return std::nullopt;
}

}  // namespace quorvix::ctl
