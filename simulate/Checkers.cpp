#include "simulate/Checkers.h"

#include <algorithm>
#include <set>
#include <span>

#include "activation/ActivationState.h"
#include "activation/AppActivationTracker.h"
#include "hang/HangState.h"
#include "hang/QXProcessInfo.h"
#include "perfstats/PerfState.h"
#include "simulate/Require.h"
#include "simulate/Text.h"

namespace quorvix::simulate {

namespace {

// As the daemon counts them, not the model.
std::uint64_t openActivations() {
    const auto& tracker = activationState().sharedInstance;
    return tracker ? tracker->counters().openActivations.load() : 0;
}

}  // namespace

void Checkers::lookForNewProcess() {
    if (starts_ == world_.starts) return;
    starts_ = world_.starts;
    dailyReports_ = DailyReports(HangState::kDefaultMaxDailyLogs);
}

void Checkers::see(QueueName, const Record& record) {
    lookForNewProcess();
    switch (record.op) {
        case Op::logLine:
            ++logLines_;
            hangsOfAWork_.line(record.what);
            hangs_ += record.what.find(": Hang detected ") != std::string::npos;
            break;
        case Op::dump:
            if (record.error.value == 0) dailyReports_.taken();
            break;
        case Op::counterSet: dailyReports_ = DailyReports(hangState().maxDailyLogs); break;
        case Op::unlinkFile:
            if (record.error.value != 0) failedRemovals_.failed(record.what);
            break;
        case Op::powerEvent: ++powerEvents_; break;
        default: break;
    }
}

void Checkers::workEnded() {
    dailyReports_.limitIs(hangState().maxDailyLogs);
    hangsOfAWork_.endOfWork([](std::string_view name) {
        return static_cast<std::size_t>(std::ranges::count(hangState().watchedProcesses, name, [](const auto& process) {
            return std::string_view(process->processName());
        }));
    });
}

void Checkers::afterStep() {
    lookForNewProcess();
    require(world_.device.files.openFiles().empty(), "a file was left open");
    require(world_.device.files.wrongCloses() == 0, "a file was closed twice");
    require(world_.device.renderServer.portReferences() == 0, "a port of the render server was not released");
    require(world_.device.regions.wrongLengthUnmaps() == 0, "a region was given back with another length");
    if (!world_.running()) {
        require(world_.device.regions.liveMappings() == 0, "a mapping outlived the process");
        return;
    }
    const HangState& state = hangState();
    const Model& model = world_.model();
    for (const auto& [name, credits] : state.appCredits) require(credits <= 3, "credits of an app above 3");
    require(state.watchedProcesses.size() == model.watched().size(), "the registry's size is not the model's");
    std::set<std::int32_t> pids;
    for (const auto& process : state.watchedProcesses) {
        require(pids.insert(process->pid()).second, "the registry holds a pid twice");
    }
    require(state.dailyLogCredits == model.dailyLogCredits(), "the day's credits are not the model's");
    require(state.fenceHangCapturePending == model.fenceCapturePending(),
            "the pending fence capture is not the model's");
    dailyReports_.limitIs(state.maxDailyLogs);
    dailyReports_.check(model.reportsSinceReset(), model.lateReportsSinceReset());
    require(world_.device.regions.liveMappings() == model.mappingsHeld(),
            "a mapping leaked, or was given back too soon");
}

void Checkers::checkReports() {
    auto& files = world_.device.files;
    const auto collect = [&](std::string_view folder) {
        const auto names = files.list(folder);
        for (const std::string& name : names) static_cast<void>(files.unlinkFile({folder, name}));
        return names.size();
    };
    for (const std::string& name : files.list(kSpool)) {
        const std::string content = files.read(std::string(kSpool) + "/" + name).value_or("");
        if (!content.starts_with("TRACE {\"Reason\":\"") || !content.ends_with("}\nEND")) {
            throw Mismatch{"checker: the report " + name + " is half there: \"" + content + "\""};
        }
    }
    for (const std::string& name : files.list(kReports)) {
        const std::string content = files.read(std::string(kReports) + "/" + name).value_or("");
        if (!content.starts_with("{\"bug_type\":\"152\"") || !content.ends_with("]\n}\n")) {
            throw Mismatch{"checker: the memory report " + name + " is half there"};
        }
    }
    reports_ += collect(kSpool);
    memoryReports_ += collect(kReports);
    for (const std::string& name : files.list(kTmp)) {
        require(failedRemovals_.excuse(kTmp, name), "a report that was begun lies in the tmp folder");
    }
    collect(kTmp);
    for (const std::string& name : files.list(kCaches)) {
        if (!name.starts_with("memory-snapshot-")) continue;
        require(failedRemovals_.excuse(kCaches, name), "a memory report that was begun lies in the cache folder");
        static_cast<void>(files.unlinkFile({kCaches, name}));
    }
    failedRemovals_.forget();
}

void Checkers::everyMinute() {
    checkReports();
    auto& device = world_.device;
    device.files.forgetCalls();
    device.processes.forgetCalls();
    device.host.forgetCalls();
    device.random.forgetCalls();
    device.preferences.clearCalls();
    device.renderServer.forgetMessages();
    if (++minutes_ % 60 == 0) {
        // Clients decide about the model's copies of their regions, of up to two mebibytes each.
        std::uint64_t copies = 0;
        for (const Region& region : world_.regionsInUse()) copies += region.model->bytes.capacity();
        heldMemory_.hour(heldBytes() - copies);
    }
    if (!world_.running()) return;
    const HangState& state = hangState();
    const Model& model = world_.model();
    // With none open and nothing on its way to the power log, nobody needs a snapshot.
    if (model.openActivations() == 0 && model.outputsWaiting() == 0) {
        require(perfState().memory.usedBytes() == 0, "memory of snapshots is held without an activation");
    }
    for (std::size_t i = 0; i < state.watchedProcesses.size(); ++i) {
        const auto& real = *state.watchedProcesses[i];
        const auto& expected = *model.watched()[i];
        require(real.pid() == expected.pid, "the registry's order is not the model's");
        require(real.processName() == expected.name && real.processPath() == expected.path, "a name in the registry");
    }
    require(state.appCredits.size() == model.appCredits().size(), "the table of credits is not the model's");
    for (const auto& [name, credits] : model.appCredits()) {
        const auto found = state.appCredits.find(name);
        require(found != state.appCredits.end() && found->second == credits, "an app's credits are not the model's");
    }
    require(state.maxDailyLogs == model.maxDailyLogs(), "the daily limit is not the model's");
    require(activationState().activationsRecordedCount == model.activationsRecorded(),
            "the count of activations is not the model's");
    require(openActivations() == model.openActivations(), "the number of open activations is not the model's");
    for (const Region& region : world_.regionsInUse()) {
        const auto real = region.real->bytes();
        const auto expected = std::span(region.model->bytes).first(real.size());
        require(std::ranges::equal(real, expected), "a client's region is not what the model made of it");
    }
}

void Checkers::atTheEnd() {
    afterStep();
    everyMinute();
    require(perfState().memory.usedBytes() == 0, "memory of snapshots is held at the end");
    if (!world_.running()) return;
    require(hangState().watchedProcesses.empty(), "the registry is not empty at the end");
    require(world_.device.regions.liveMappings() == 0, "a mapping is left at the end");
    require(openActivations() == 0, "an activation is open at the end");
    require(world_.device.messages.liveConnections() == 0, "a connection is left at the end");
    require(!hangState().fenceHangCapturePending, "a capture is pending at the end");
}

}  // namespace quorvix::simulate
