#include "ctl/BudgetReport.h"

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <vector>

#include "ctl/Printable.h"
#include "ctl/TextTable.h"

namespace quorvix::ctl {

namespace {

using Json = nlohmann::ordered_json;

Json memberOf(const Json& object, const char* name) {
    return object.is_object() && object.contains(name) ? object[name] : Json();
}

std::optional<std::int64_t> numberOf(const Json& object, const char* name) {
    const Json value = memberOf(object, name);
    return value.is_number() ? std::optional(value.get<std::int64_t>()) : std::nullopt;
}

std::string textOf(const Json& value) {
    if (value.is_string()) return printable(value.get_ref<const std::string&>());
    return value.is_null() ? "?" : printable(value.dump());
}

std::string durationText(std::int64_t seconds) {
    constexpr std::int64_t kMinute = 60;
    constexpr std::int64_t kHour = 3600;
    if (seconds < kMinute) return std::to_string(seconds) + " s";
    if (seconds < kHour) return std::to_string(seconds / kMinute) + " min " + std::to_string(seconds % kMinute) + " s";
    return std::to_string(seconds / kHour) + " h " + std::to_string(seconds % kHour / kMinute) + " min";
}

std::string timeLeft(const std::optional<std::int64_t>& seconds) {
    return seconds ? "in " + durationText(*seconds) : "when hang tracing runs";
}

// What a reason's word means; the words are those of the log (docs/logging.md).
std::string_view meaningOf(std::string_view reason) {
    if (reason == "switched-off") return "reports are switched off (QuorvixEnableSwivex)";
    if (reason == "no-library") return "the trace library is missing or does not fit";
    if (reason == "app-credits") return "the app has used up its reports";
    if (reason == "daily-limit") return "the device has used up its reports of the day";
    if (reason == "fence-pending") return "a report of another fence hang was about to be written";
    if (reason == "not-written") return "the report could not be written: the log says why";
    return "";
}

std::vector<TextRow> refusalRows(const Json& refused) {
    std::vector<TextRow> rows;
    if (!refused.is_object()) return {{"unknown"}};
    for (const auto& [reason, count] : refused.items()) {
        if (count == 0) continue;
        rows.push_back({printable(reason), textOf(count), std::string(meaningOf(reason))});
    }
    if (rows.empty()) rows.push_back({"none"});
    return rows;
}

}  // namespace

Json budgetJson(const Json& state) {
    const Json budget = memberOf(state, "budget");
    return {{"device", memberOf(state, "dailyCredits")},
            {"dailyResetInSeconds", memberOf(budget, "dailyResetInSeconds")},
            {"appCreditsAtMost", memberOf(budget, "appCreditsAtMost")},
            {"apps", memberOf(state, "appCredits")},
            {"refillEverySeconds", memberOf(budget, "refillEverySeconds")},
            {"nextRefillInSeconds", memberOf(budget, "nextRefillInSeconds")},
            {"refused", memberOf(budget, "refused")},
            {"lastRefusals", memberOf(budget, "lastRefusals")}};
}

std::string budgetReport(const Json& state) {
    const Json budget = memberOf(state, "budget");
    const Json device = memberOf(state, "dailyCredits");
    std::string out = "device: " + textOf(memberOf(device, "left")) + " of " + textOf(memberOf(device, "limit")) +
                      " reports left, all of them again " + timeLeft(numberOf(budget, "dailyResetInSeconds")) + "\n";
    out += "\napps that have used some of their " + textOf(memberOf(budget, "appCreditsAtMost")) + " reports\n";
    std::vector<TextRow> rows;
    const Json apps = memberOf(state, "appCredits");
    for (const auto& [app, credits] : apps.items()) rows.push_back({printable(app), textOf(credits)});
    if (rows.empty()) rows.push_back({"none"});
    appendTable(out, rows);
    if (const auto every = numberOf(budget, "refillEverySeconds")) {
        out += "  one comes back " + timeLeft(numberOf(budget, "nextRefillInSeconds")) + ", then every " +
               durationText(*every) + "\n";
    }
    out += "\nhangs without a report since quorvixd's start\n";
    appendTable(out, refusalRows(memberOf(budget, "refused")));
    const Json last = memberOf(budget, "lastRefusals");
    if (last.is_array() && !last.empty()) {
        out += "\nthe last of them, newest first\n";
        rows = {{"ago", "app", "hang", "reason"}};
        for (const Json& refusal : last) {
            rows.push_back({durationText(numberOf(refusal, "secondsAgo").value_or(0)), textOf(memberOf(refusal, "app")),
                            textOf(memberOf(refusal, "hang")), textOf(memberOf(refusal, "reason"))});
        }
        appendTable(out, rows);
    }
    return out;
}

}  // namespace quorvix::ctl
