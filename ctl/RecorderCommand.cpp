#include "ctl/RecorderCommand.h"

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <ostream>

#include "ctl/TextTable.h"
#include "swivex/FlightRecorder.h"

namespace quorvix::ctl {

namespace {

using Json = nlohmann::ordered_json;
using swivex::FlightRecorder;

FlightRecorder recorderOf(const RecorderRequest& request, const ToolServices& services) {
    return FlightRecorder({services.traceRoot, request.instance});
}

std::string seconds(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f s", value);
    return text;
}

double reachOf(const FlightRecorder::Status& status, const FlightRecorder::Cpu& cpu) {
    return std::max(0.0, status.nowSeconds - *cpu.oldestSeconds);
}

Json jsonOf(const FlightRecorder::Status& status) {
    Json json = {{"on", status.on}};
    if (!status.on) return json;
    if (!status.problem.empty()) json["problem"] = status.problem;
    json["clock"] = status.clock;
    json["kilobytesPerCpu"] = status.kilobytes;
    json["events"] = status.events;
    json["notRecorded"] = status.notRecorded;
    json["cpus"] = Json::array();
    for (const FlightRecorder::Cpu& cpu : status.cpus) {
        Json entry = {{"cpu", cpu.number}, {"entries", cpu.entries}, {"overwritten", cpu.overrun}, {"lost", cpu.lost}};
        if (cpu.oldestSeconds) entry["reachesBackSeconds"] = reachOf(status, cpu);
        json["cpus"].push_back(std::move(entry));
    }
    return json;
}

std::string textOf(const FlightRecorder::Status& status) {
    if (!status.on) return "The flight recorder is off. Hang reports hold no past; see \"quorvixctl recorder on\".\n";
    std::string text = "The flight recorder is on: " + std::to_string(status.kilobytes) + " KiB a CPU, " +
                       std::to_string(status.events.size()) + " events.\n";
    if (!status.problem.empty()) text += "It is of no use as it is: " + status.problem + ".\n";
    for (const std::string& event : status.notRecorded) text += "Not recorded: " + event + "\n";
    std::vector<TextRow> rows = {{"cpu", "events held", "reaches back", "overwritten", "lost"}};
    for (const FlightRecorder::Cpu& cpu : status.cpus) {
        rows.push_back({std::to_string(cpu.number), std::to_string(cpu.entries),
                        cpu.oldestSeconds ? seconds(reachOf(status, cpu)) : "-", std::to_string(cpu.overrun),
                        std::to_string(cpu.lost)});
    }
    appendTable(text, rows);
    return text;
}

}  // namespace

ExitStatus RecorderCommand::fail(const std::string& problem) const {
    services_.error << "quorvixctl: " << problem << "\n";
    return ExitStatus::failed;
}

bool RecorderCommand::isName(const std::string& instance) const {
    const bool good = !instance.empty() && instance != "." && instance != ".." &&
                      instance.find('/') == std::string::npos && instance.size() < 200;
    if (!good) services_.error << "quorvixctl: a recorder's name is the name of one folder\n";
    return good;
}

ExitStatus RecorderCommand::on(const RecorderRequest& request, bool asJson) const {
    if (!isName(request.instance)) return ExitStatus::usage;
    const auto armed = recorderOf(request, services_).arm({.kilobytes = request.kilobytes});
    if (!armed) return fail("the flight recorder can't be switched on: " + armed.problem());
    if (asJson) {
        services_.out << Json{{"on", true}, {"wasOn", armed->wasOn}, {"notRecorded", armed->notRecorded}}.dump(2)
                      << "\n";
        return ExitStatus::done;
    }
    services_.out << (armed->wasOn ? "The flight recorder was on.\n" : "The flight recorder is on.\n");
    for (const std::string& event : armed->notRecorded) {
        services_.out << "Not recorded, since this kernel does not have it: " << event << "\n";
    }
    return ExitStatus::done;
}

ExitStatus RecorderCommand::off(const RecorderRequest& request, bool asJson) const {
    if (!isName(request.instance)) return ExitStatus::usage;
    const auto wasOn = recorderOf(request, services_).disarm();
    if (!wasOn) return fail("the flight recorder can't be switched off: " + wasOn.problem());
    if (asJson) {
        services_.out << Json{{"on", false}, {"wasOn", *wasOn}}.dump(2) << "\n";
    } else {
        services_.out << (*wasOn ? "The flight recorder is off.\n" : "The flight recorder was off.\n");
    }
    return ExitStatus::done;
}

ExitStatus RecorderCommand::status(const RecorderRequest& request, bool asJson) const {
    if (!isName(request.instance)) return ExitStatus::usage;
    const auto status = recorderOf(request, services_).status();
    if (!status) return fail("the flight recorder can't be looked at: " + status.problem());
    services_.out << (asJson ? jsonOf(*status).dump(2) + "\n" : textOf(*status));
    return status->problem.empty() ? ExitStatus::done : ExitStatus::failed;
}

}  // namespace quorvix::ctl
