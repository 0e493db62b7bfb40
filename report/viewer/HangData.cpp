#include "report/viewer/HangData.h"

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <string_view>

#include "report/PlainText.h"
#include "report/ReportText.h"

namespace quorvix::report {

namespace {

using Json = nlohmann::ordered_json;

// Of a reason, a module's path and the like: what is beyond is of no use on a page.
constexpr std::size_t kLongestText = 512;
// The innermost ones.
constexpr std::size_t kMostFrames = 256;

std::string shown(std::string_view text) {
    return text.size() <= kLongestText ? escaped(text) : escaped(text.substr(0, kLongestText)) + "...";
}

Json timesJson(const ThreadTimeline& timeline) {
    Json json = Json::object();
    for (std::size_t at = 0; at < kActivities; ++at) {
        if (timeline.timeNs[at] != 0) json[std::string(keyOf(static_cast<Activity>(at)))] = timeline.timeNs[at];
    }
    return json;
}

Json stripJson(const StateStrip& strip) {
    Json json = Json::array();
    for (const StateStrip::Run& run : strip.runs()) json.push_back({keyOf(run.activity), run.slices});
    return json;
}

Json threadJson(const ThreadLabel& thread, const ThreadTimeline& timeline) {
    return {{"label", labelText(thread)}, {"times", timesJson(timeline)}, {"strip", stripJson(timeline.strip)}};
}

// Negative for what began before the hang; null where that is not known.
Json offsetJson(std::uint64_t timeNs, const Interval& window) {
    if (timeNs == 0) return nullptr;
    return static_cast<std::int64_t>(timeNs - window.beginNs);
}

class Frames {
public:
    std::size_t indexOf(const ToldFrame& told) {
        const Frame& frame = told.frame;
        const std::string name =
            shown(!told.symbol.empty() ? told.symbol : (frame.name.empty() ? "no module" : frame.name));
        const std::string where = frame.isKernel() ? "kernel" : shown(frame.modulePath);
        const auto [known, isNew] = indices_.try_emplace({name, where}, table_.size());
        if (isNew) table_.push_back({name, where, frame.isKernel() ? 1 : 0});
        return known->second;
    }
    const Json& table() const { return table_; }

private:
    std::map<std::pair<std::string, std::string>, std::size_t> indices_;
    Json table_ = Json::array();
};

Json waitJson(const ToldWait& told, const HangReport& report) {
    const Wait& wait = told.wait;
    Json json = {{"activity", keyOf(wait.activity)},
                 {"begin_ns", offsetJson(wait.interval.beginNs, report.window)},
                 {"in_hang_ns", wait.inWindowNs},
                 {"ended", wait.hasEnded}};
    if (told.waker) {
        const bool isInterrupt = wait.waker->byInterrupt || told.waker->tid == CpuUse::kIdle;
        json["by"] = isInterrupt ? "an interrupt (a timer or a device)" : labelText(*told.waker);
    }
    if (told.wakerBefore) json["by_did"] = timesJson(*told.wakerBefore);
    return json;
}

void addStacks(Json& json, const HangReport& report) {
    Frames frames;
    Json stacks = Json::array();
    for (const ToldStack& told : report.stacks) {
        Json indices = Json::array();
        for (std::size_t at = 0; at < std::min(told.frames.size(), kMostFrames); ++at) {
            indices.push_back(frames.indexOf(told.frames[at]));
        }
        Json stack = {{"thread", labelText(told.thread)}, {"frames", std::move(indices)}};
        if (told.frames.size() > kMostFrames) stack["frames_left_out"] = told.frames.size() - kMostFrames;
        if (!told.problem.empty()) stack["problem"] = shown(told.problem);
        stacks.push_back(std::move(stack));
    }
    json["frames"] = frames.table();
    json["stacks"] = std::move(stacks);
    json["stacks_left_out"] = report.stacksLeftOut;
    if (report.stacks.empty()) json["stack_problem"] = shown(report.stackProblem);
}

Json completenessJson(const HangReport& report) {
    const Interval known = report.window.common(report.covered);
    Json lost = Json::array();
    for (const auto& [cpu, count] : report.lost) lost.push_back({shown(cpu), count});
    Json missing = Json::array();
    for (const auto& [source, why] : report.missing) missing.push_back({shown(source), shown(why)});
    Json json = {{"incomplete", shown(report.incomplete)},
                 {"recorder", shown(report.recorder)},
                 {"covered_ns", known.length()},
                 {"lost", lost},
                 {"missing", missing}};
    if (known.length() > 0) json["covered_from_ns"] = offsetJson(known.beginNs, report.window);
    return json;
}

}  // namespace

Json hangData(const HangReport& report) {
    Json json = {{"thread", labelText(report.hung)},
                 {"reason", shown(report.reason.reason ? *report.reason.reason : report.reason.text)},
                 {"service", shown(report.reason.service.value_or(""))},
                 {"program", shown(report.reason.processPath.value_or(""))},
                 {"evidence", evidenceOf(report)},
                 {"polling", report.verdict.isPolling},
                 {"completeness", completenessJson(report)},
                 {"hung", threadJson(report.hung, report.timeline)}};
    Json others = Json::array();
    for (const ToldThread& other : report.otherThreads) {
        Json thread = threadJson(other.thread, other.timeline);
        thread["waker"] = other.isWaker;
        thread["fellow"] = other.thread.pid != kNoThread && other.thread.pid == report.hung.pid;
        others.push_back(std::move(thread));
    }
    json["others"] = std::move(others);
    json["fellows_left_out"] = report.fellowsLeftOut;
    json["fellows_at_rest"] = report.fellowsAtRest;
    json["waits"] = Json::array();
    for (const ToldWait& told : report.waits) json["waits"].push_back(waitJson(told, report));
    json["users"] = Json::array();
    for (const ToldUse& use : report.topUsers) {
        json["users"].push_back(
            {{"label", labelText(use.thread)}, {"ran_ns", use.ranNs}, {"hung", use.thread.tid == report.hung.tid}});
    }
    json["idle_ns"] = report.idleNs;
    json["cpus"] = report.cpus;
    addStacks(json, report);
    return json;
}

}  // namespace quorvix::report
