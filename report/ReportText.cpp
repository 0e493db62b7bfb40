#include "report/ReportText.h"

#include <algorithm>
#include <cstdio>

#include "report/PlainText.h"

namespace quorvix::report {

namespace {

std::string_view wordOf(Activity activity) {
    switch (activity) {
        case Activity::running: return "ran";
        case Activity::runnable: return "waited for a CPU";
        case Activity::sleeping: return "slept";
        case Activity::uninterruptible: return "waited uninterruptibly";
        case Activity::stopped: return "was stopped";
        case Activity::gone: return "was gone";
        case Activity::unknown: break;
    }
    return "not known";
}

constexpr Activity kInOrder[] = {Activity::running, Activity::runnable, Activity::sleeping, Activity::uninterruptible,
                                 Activity::stopped, Activity::gone,     Activity::unknown};

double shareOf(const ThreadTimeline& timeline, Activity activity) {
    const std::uint64_t length = timeline.window.length();
    return length == 0 ? 0 : static_cast<double>(timeline.at(activity)) / static_cast<double>(length);
}

// "ran 4.7 s, slept 12 ms"
std::string doings(const ThreadTimeline& timeline) {
    std::string text;
    for (const Activity activity : kInOrder) {
        if (timeline.at(activity) == 0) continue;
        if (!text.empty()) text += ", ";
        text += std::string(wordOf(activity)) + " " + durationText(timeline.at(activity));
    }
    return text.empty() ? "nothing that is known" : text;
}

std::string wakerText(const ToldWait& told) {
    if (!told.waker) return {};
    if (told.wait.waker->byInterrupt || told.waker->tid == CpuUse::kIdle) {
        return "an interrupt (a timer or a device) on CPU " + std::to_string(told.wait.waker->cpu);
    }
    return labelText(*told.waker);
}

std::string endText(const ToldWait& told) {
    if (!told.wait.hasEnded) return "had not ended when the report was made";
    if (told.wait.activity == Activity::runnable) return "then ran";
    const std::string waker = wakerText(told);
    return waker.empty() ? "ended, by whom is not known" : "ended by " + waker;
}

// Seconds from the hang's begin; negative for what began before.
std::string offsetText(std::uint64_t timeNs, const Interval& window) {
    if (timeNs == 0) return "before";
    const auto offset = static_cast<double>(static_cast<std::int64_t>(timeNs - window.beginNs)) / 1e9;
    char text[32];
    std::snprintf(text, sizeof(text), "%+.3f s", offset);
    return text;
}

void appendRow(std::string& out, std::string left, std::size_t width, const std::string& right) {
    if (left.size() < width) left.insert(0, width - left.size(), ' ');
    out += "  " + left + "  " + right + '\n';
}

void appendMissing(std::string& out, const HangReport& report) {
    for (const auto& [source, why] : report.missing) {
        out += "Missing: " + escaped(source) + ": " + escaped(why) + '\n';
    }
}

void appendCompleteness(std::string& out, const HangReport& report) {
    out += report.incomplete.empty() ? "File complete\n" : "FILE INCOMPLETE: " + escaped(report.incomplete) + '\n';
    if (!report.isHangReport) {
        out += report.asksForNoTime ? "No hang report: no time lies between the begin and the end that were asked for\n"
                                    : "No hang report: the file does not say which time was asked for\n";
        appendMissing(out, report);
        return;
    }
    const Interval known = report.window.common(report.covered);
    out += "Recorder " + (report.recorder.empty() ? std::string("not named") : escaped(report.recorder)) + ", holds " +
           percentText(static_cast<double>(known.length()) / static_cast<double>(report.window.length())) +
           " of the hang";
    if (known.length() > 0 && known.beginNs > report.window.beginNs) {
        out += ", from " + offsetText(known.beginNs, report.window);
    }
    if (known.length() > 0 && known.endNs < report.window.endNs) {
        out += ", until " + offsetText(known.endNs, report.window);
    }
    out += '\n';
    for (const auto& [cpu, count] : report.lost) {
        out += "Lost on " + escaped(cpu) + ": " +
               (count < 0 ? std::string("not known how many") : std::to_string(count)) + " events\n";
    }
    appendMissing(out, report);
}

void appendStack(std::string& out, const HangReport& report) {
    out += "Stack of the hung thread\n";
    if (!report.stackProblem.empty()) out += "  " + escaped(report.stackProblem) + '\n';
    for (std::size_t at = 0; at < report.stack.size(); ++at) {
        const ToldFrame& told = report.stack[at];
        std::string text = told.frame.isKernel() ? "kernel  " : "";
        text += told.symbol.empty() ? escaped(told.frame.name.empty() ? "no module" : told.frame.name)
                                    : escaped(told.symbol);
        if (!told.symbol.empty() && !told.frame.isKernel()) text += "  (" + escaped(told.frame.name) + ")";
        appendRow(out, std::to_string(at), 4, text);
    }
}

}  // namespace

std::string labelText(const ThreadLabel& label) {
    if (label.tid == kNoThread) return "a thread that is not known";
    std::string text = label.name.empty() ? "thread " + std::to_string(label.tid)
                                          : escaped(label.name) + " (" + std::to_string(label.tid) + ")";
    if (!label.process.empty() && label.process != label.name) text += " of " + escaped(label.process);
    return text;
}

std::vector<std::string> evidenceOf(const HangReport& report) {
    std::vector<std::string> lines = {escaped(report.verdict.because)};
    for (const std::string& remark : report.verdict.remarks) lines.push_back(escaped(remark));
    const bool waited = report.verdict.cause == Cause::blocked || report.verdict.cause == Cause::io ||
                        report.verdict.cause == Cause::stopped;
    if (waited && report.verdict.isPolling) {
        std::string line = "it slept " + std::to_string(report.timeline.sleeps) +
                           " times, none of them long: it looks again and again";
        const auto most = std::ranges::max_element(report.timeline.wakers, {},
                                                   [](const auto& entry) { return entry.second.sleptNs; });
        if (most != report.timeline.wakers.end() && (most->first.byInterrupt || most->first.tid == CpuUse::kIdle)) {
            line += ", woken by a timer or a device";
        }
        lines.push_back(line);
    }
    if (waited && !report.waits.empty()) {
        const auto longest = std::ranges::find_if(
            report.waits, [](const ToldWait& told) { return told.wait.activity != Activity::runnable; });
        if (longest != report.waits.end() && !longest->wait.hasEnded)
            lines.push_back("its longest wait had not ended when the report was made");
    }
    if (waited && report.timeline.ongoing && report.timeline.ongoing->activity != Activity::runnable &&
        !report.waitPlace.text.empty()) {
        std::string line = "when the report was made it waited for " + std::string(report.waitPlace.text);
        if (!report.waitPlace.function.empty()) line += ", in " + escaped(report.waitPlace.function);
        lines.push_back(line);
    }
    if (waited && report.blocker && !report.verdict.isPolling) {
        const ToldWait& told = report.waits[*report.blocker];
        lines.push_back("a wait of " + durationText(told.wait.inWindowNs) + " was ended by " + wakerText(told) +
                        ", which until then " + doings(*told.wakerBefore));
    }
    if (report.verdict.cause == Cause::blocked && report.topOfProcess) {
        lines.push_back("of its process, " + labelText(report.topOfProcess->thread) +
                        " ran most meanwhile: " + durationText(report.topOfProcess->ranNs));
    }
    if (report.verdict.cause == Cause::starved || report.verdict.cause == Cause::busy) {
        for (const ToldUse& use : report.topUsers) {
            if (use.thread.tid == report.hung.tid) continue;
            lines.push_back("meanwhile " + labelText(use.thread) + " ran " + durationText(use.ranNs));
            break;
        }
    }
    return lines;
}

std::string reportText(const HangReport& report) {
    std::string out;
    appendCompleteness(out, report);
    if (!report.isHangReport) return out;
    out += "\n" + escaped(report.app()) + " hung for " + durationText(report.window.length());
    if (report.beganRealtimeNs) out += ", from " + localTimeText(*report.beganRealtimeNs);
    out += "\nThread " + labelText(report.hung) + "\n";
    if (report.reason.reason) {
        out += "Reason: " + escaped(*report.reason.reason) + '\n';
    } else if (!report.reason.text.empty()) {
        out += "Reason, not understood: " + escaped(report.reason.text.substr(0, 1024)) + '\n';
    }
    if (report.reason.service) out += "Reported by: " + escaped(*report.reason.service) + '\n';
    out += "\nVerdict: " + std::string(nameOf(report.verdict.cause)) + '\n';
    for (const std::string& line : evidenceOf(report)) out += "  " + line + '\n';
    out += "What the thread did\n";
    for (const Activity activity : kInOrder) {
        if (report.timeline.at(activity) == 0) continue;
        appendRow(out, percentText(shareOf(report.timeline, activity)), 8,
                  std::string(wordOf(activity)) + ", " + durationText(report.timeline.at(activity)));
    }
    out += '\n';
    appendStack(out, report);
    if (!report.waits.empty()) out += "\nLongest waits\n";
    for (const ToldWait& told : report.waits) {
        std::string text = std::string(wordOf(told.wait.activity)) + " from " +
                           offsetText(told.wait.interval.beginNs, report.window) + "; " + endText(told);
        if (!told.wait.hasEnded && told.wait.activity != Activity::runnable && !report.waitPlace.text.empty())
            text += "; waits for " + std::string(report.waitPlace.text);
        if (told.wakerBefore) text += ", which until then " + doings(*told.wakerBefore);
        appendRow(out, durationText(told.wait.inWindowNs), 10, text);
    }
    if (!report.topUsers.empty()) out += "\nTop CPU users of the hang\n";
    for (const ToldUse& use : report.topUsers) {
        appendRow(out, durationText(use.ranNs), 10,
                  labelText(use.thread) + (use.thread.tid == report.hung.tid ? "  <- hung" : ""));
    }
    if (report.cpus > 0)
        appendRow(out, durationText(report.idleNs), 10, "idle, of " + std::to_string(report.cpus) + " CPUs");
    return out;
}

}  // namespace quorvix::report
