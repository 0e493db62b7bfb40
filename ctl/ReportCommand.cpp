#include "ctl/ReportCommand.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <ostream>
#include <vector>

#include "ctl/HangReportFiles.h"
#include "ctl/TextTable.h"
#include "report/HangReport.h"
#include "report/PlainText.h"
#include "report/ReportText.h"
#include "report/Symboliser.h"

namespace quorvix::ctl {

namespace {

using Json = nlohmann::ordered_json;
using report::escaped;

// What a line of the list tells. The report itself is not kept: a spool may hold many.
struct Listed {
    std::string name;
    std::int64_t whenNs = 0;
    std::string problem;  // empty: read
    std::string app;
    std::uint64_t lengthNs = 0;
    std::string_view cause;
    bool isComplete = false;
};

Listed look(const std::string& folder, const std::string& name) {
    Listed listed;
    listed.name = name;
    const auto file = report::PacketFile::open(folder + "/" + name);
    if (!file) {
        listed.problem = whyNotRead(file.error());
        return listed;
    }
    listed.whenNs = file->modifiedSeconds() * 1'000'000'000;
    const report::HangReport read = report::analyse(scanOf(*file), {.waits = 0, .blockers = 0, .users = 0});
    if (!read.isHangReport) {
        listed.problem = whyNoHangReport(read);
        return listed;
    }
    listed.whenNs = read.beganRealtimeNs.value_or(listed.whenNs);
    listed.app = read.app();
    listed.lengthNs = read.window.length();
    listed.cause = report::nameOf(read.verdict.cause);
    listed.isComplete = read.incomplete.empty();
    return listed;
}

Json jsonOf(const Listed& listed) {
    Json json = {{"file", report::asUtf8(listed.name)}, {"when_realtime_ns", listed.whenNs}};
    if (!listed.problem.empty()) {
        json["problem"] = listed.problem;
        return json;
    }
    json["app"] = report::asUtf8(listed.app);
    json["duration_ns"] = listed.lengthNs;
    json["cause"] = listed.cause;
    json["complete"] = listed.isComplete;
    return json;
}

TextRow rowOf(const Listed& listed) {
    if (!listed.problem.empty()) {
        return {report::localTimeText(listed.whenNs), "-", "-", listed.problem, escaped(listed.name)};
    }
    std::string why(listed.cause);
    if (!listed.isComplete) why += ", incomplete";
    return {report::localTimeText(listed.whenNs), escaped(listed.app), report::durationText(listed.lengthNs), why,
            escaped(listed.name)};
}

}  // namespace

ExitStatus ReportCommand::list(const std::string& folder, Format format) const {
    const auto names = hangReportNames(folder);
    if (!names) {
        services_.error << "quorvixctl: the folder of hang reports " << escaped(folder)
                        << " could not be read: " << names.error().text() << '\n';
        return ExitStatus::failed;
    }
    std::vector<Listed> reports;
    for (const std::string& name : *names) reports.push_back(look(folder, name));
    std::ranges::sort(reports, [](const Listed& one, const Listed& other) {
        return one.whenNs != other.whenNs ? one.whenNs > other.whenNs : one.name < other.name;
    });
    if (format == Format::json) {
        Json json = Json::array();
        for (const Listed& listed : reports) json.push_back(jsonOf(listed));
        services_.out << json.dump(2, ' ', false, Json::error_handler_t::replace) << '\n';
        return ExitStatus::done;
    }
    std::vector<TextRow> rows = {{"WHEN (LOCAL TIME)", "APP", "HOW LONG", "WHY", "FILE"}};
    for (const Listed& listed : reports) rows.push_back(rowOf(listed));
    std::string text;
    appendTable(text, rows);
    services_.out << (reports.empty() ? "no hang reports\n" : text);
    return ExitStatus::done;
}

ExitStatus ReportCommand::show(const std::string& file, const std::string& folder, const Form& form) const {
    const std::string path = hangReportPath(file, folder);
    const auto opened = report::PacketFile::open(path);
    if (!opened) {
        services_.error << "quorvixctl: " << escaped(path) << " could not be read: " << whyNotRead(opened.error())
                        << '\n';
        return ExitStatus::failed;
    }
    report::Symboliser symboliser;
    report::NameFrames nameFrames;
    if (form.symbols) {
        nameFrames = [&symboliser](const report::TraceContents& contents, std::vector<report::ToldFrame>& stack) {
            symboliser.name(contents, stack);
        };
    }
    const report::HangReport read = report::analyse(scanOf(*opened), {}, nameFrames);
    services_.out << (form.format == Format::json ? report::reportJson(read) : report::reportText(read));
    if (read.isHangReport) return ExitStatus::done;
    services_.error << "quorvixctl: " << escaped(path) << " is no hang report\n";
    return ExitStatus::failed;
}

}  // namespace quorvix::ctl
