#include <nlohmann/json.hpp>

#include "report/PlainText.h"
#include "report/ReportText.h"

namespace quorvix::report {

namespace {

using Json = nlohmann::ordered_json;

Json timesJson(const ThreadTimeline& timeline) {
    Json json = Json::object();
    for (std::size_t at = 0; at < kActivities; ++at) {
        json[std::string(keyOf(static_cast<Activity>(at))) + "_ns"] = timeline.timeNs[at];
    }
    return json;
}

Json labelJson(const ThreadLabel& label) {
    Json json = {{"tid", label.tid}, {"name", asUtf8(label.name)}};
    if (label.pid != kNoThread) json["pid"] = label.pid;
    if (!label.process.empty()) json["process"] = asUtf8(label.process);
    return json;
}

std::string hexOf(const std::vector<std::uint8_t>& bytes) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    std::string text;
    for (const std::uint8_t byte : bytes) {
        text += kDigits[byte >> 4];
        text += kDigits[byte & 0xf];
    }
    return text;
}

Json completenessJson(const HangReport& report) {
    Json missing = Json::object();
    for (const auto& [source, why] : report.missing) missing[asUtf8(source)] = asUtf8(why);
    Json lost = Json::object();
    for (const auto& [cpu, count] : report.lost) lost[asUtf8(cpu)] = count;
    Json json = {{"complete", report.incomplete.empty()}};
    if (!report.incomplete.empty()) json["incomplete"] = report.incomplete;
    json["recorder"] = asUtf8(report.recorder);
    json["asked_ns"] = {report.window.beginNs, report.window.endNs};
    json["covered_ns"] = {report.covered.beginNs, report.covered.endNs};
    json["lost_events"] = lost;
    json["missing"] = missing;
    return json;
}

Json waitJson(const ToldWait& told) {
    Json json = {{"activity", keyOf(told.wait.activity)},
                 {"begin_ns", told.wait.interval.beginNs},
                 {"in_hang_ns", told.wait.inWindowNs},
                 {"ended", told.wait.hasEnded}};
    if (told.wait.hasEnded) json["end_ns"] = told.wait.interval.endNs;
    if (told.waker) {
        json["ended_by"] = labelJson(*told.waker);
        json["ended_by_interrupt"] = told.wait.waker->byInterrupt;
        json["ended_on_cpu"] = told.wait.waker->cpu;
    }
    if (told.wakerBefore) json["ended_by_did"] = timesJson(*told.wakerBefore);
    return json;
}

}  // namespace

std::string reportJson(const HangReport& report) {
    Json json = {{"completeness", completenessJson(report)}};
    json["is_hang_report"] = report.isHangReport;
    if (report.isHangReport) {
        json["app"] = asUtf8(report.app());
        json["duration_ns"] = report.window.length();
        if (report.beganRealtimeNs) json["began_realtime_ns"] = *report.beganRealtimeNs;
        json["hung"] = labelJson(report.hung);
        const Json reason = Json::parse(report.reason.text, nullptr, false);
        json["reason"] = reason.is_discarded() ? Json(asUtf8(report.reason.text)) : reason;

        Json evidence = Json::array();
        for (const std::string& line : evidenceOf(report)) evidence.push_back(asUtf8(line));
        json["verdict"] = {{"cause", nameOf(report.verdict.cause)},
                           {"evidence", evidence},
                           {"polling", report.verdict.isPolling},
                           {"times", timesJson(report.timeline)}};
        if (!report.waitPlace.text.empty()) {
            json["verdict"]["waits_for"] = report.waitPlace.text;
            if (!report.waitPlace.function.empty()) json["verdict"]["waits_in"] = asUtf8(report.waitPlace.function);
        }

        Json stack = Json::array();
        for (const ToldFrame& told : report.stack) {
            Json frame = {{"name", asUtf8(told.frame.name)}, {"kernel", told.frame.isKernel()}};
            if (!told.symbol.empty()) frame["symbol"] = asUtf8(told.symbol);
            if (!told.frame.modulePath.empty()) {
                frame["module"] = asUtf8(told.frame.modulePath);
                frame["relative_pc"] = told.frame.relativePc;
            }
            if (!told.frame.buildId.empty()) frame["build_id"] = hexOf(told.frame.buildId);
            stack.push_back(std::move(frame));
        }
        json["stack"] = stack;
        if (!report.stackProblem.empty()) json["stack_problem"] = asUtf8(report.stackProblem);
        json["waits"] = Json::array();
        for (const ToldWait& told : report.waits) json["waits"].push_back(waitJson(told));
        json["cpu_users"] = Json::array();
        for (const ToldUse& use : report.topUsers) {
            json["cpu_users"].push_back({{"thread", labelJson(use.thread)}, {"ran_ns", use.ranNs}});
        }
        json["idle_ns"] = report.idleNs;
        json["cpus"] = report.cpus;
    }
    return json.dump(2, ' ', false, Json::error_handler_t::replace) + '\n';
}

}  // namespace quorvix::report
