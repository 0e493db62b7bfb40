#include "swivex/Reason.h"

#include <limits>
#include <nlohmann/json.hpp>

#include "swivex/Utf8.h"

namespace quorvix::swivex {

Reason parseReason(std::optional<std::string_view> text) {
    Reason reason;
    if (!text || text->empty()) {
        reason.problem = "no reason was given";
        return reason;
    }
    reason.text = validUtf8(*text);
    const auto document = nlohmann::json::parse(reason.text, nullptr, /*allow_exceptions=*/false);
    if (!document.is_object()) {
        reason.problem = "the reason is not a JSON object";
        return reason;
    }
    const auto number = [&](const char* key) -> std::optional<std::int64_t> {
        const auto found = document.find(key);
        if (found == document.end() || !found->is_number_integer()) return std::nullopt;
        return found->get<std::int64_t>();
    };
    const auto pid = number("PID");
    if (!pid || *pid <= 0 || *pid > std::numeric_limits<std::int32_t>::max()) {
        reason.problem = "the reason names no process";
        return reason;
    }
    reason.pid = static_cast<std::int32_t>(*pid);
    reason.threadID = number("ThreadID").value_or(0);
    return reason;
}

}  // namespace quorvix::swivex
