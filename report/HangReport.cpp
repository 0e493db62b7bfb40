#include "report/HangReport.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace quorvix::report {

namespace {

// A wait is told when it takes at least one part in so many of the hang.
constexpr std::uint64_t kLeastToldWait = 1000;

constexpr std::uint32_t kFtraceEvents = 1;

std::string_view programOf(std::string_view path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

// Calls with every scheduling event of the file.
void forEachSchedEvent(const ScanFile& scan, const TraceContents& contents, const SchedDecoder::Visitor& visit) {
    SchedDecoder decoder(contents.clampedSwitches());
    scan([&](Bytes packet) {
        ProtoFields fields(packet);
        ProtoField field;
        while (fields.next(field)) {
            if (field.number == kFtraceEvents && field.kind == ProtoField::Kind::bytes) {
                // A damaged bundle ends early; the file counts as damaged by the first walk.
                (void)decoder.decode(field.bytes, visit);
            }
        }
    });
}

Reason readReason(const TraceContents& contents) {
    Reason reason;
    const std::string* text = contents.text("reason");
    if (text == nullptr) return reason;
    reason.text = *text;
    const auto json = nlohmann::json::parse(*text, nullptr, false);
    if (!json.is_object()) return reason;
    const auto textAt = [&](const char* key) -> std::optional<std::string> {
        const auto found = json.find(key);
        if (found == json.end() || !found->is_string()) return std::nullopt;
        return found->get<std::string>();
    };
    const auto numberAt = [&](const char* key) -> std::optional<std::int64_t> {
        const auto found = json.find(key);
        if (found == json.end() || !found->is_number_integer()) return std::nullopt;
        return found->get<std::int64_t>();
    };
    reason.reason = textAt("Reason");
    reason.service = textAt("ServiceName");
    reason.processPath = textAt("ProcessPath");
    reason.pid = numberAt("PID");
    reason.threadId = numberAt("ThreadID");
    return reason;
}

class Analysis {
public:
    Analysis(const ScanFile& scan, const AnalysisDepth& depth, const NameFrames& nameFrames)
        : scan_(scan), depth_(depth), nameFrames_(nameFrames) {}

    HangReport run() {
        contents_.finish(scan_([this](Bytes packet) { contents_.add(packet); }));
        takeContents();
        if (!report_.isHangReport) return std::move(report_);
        takeEvents();
        takeStack();
        applyWaitPlace(report_.timeline, report_.waitPlace);
        report_.verdict = judge(report_.timeline);
        takeWaits();
        takeOtherThreads();
        return std::move(report_);
    }

private:
    ThreadLabel labelOf(std::int32_t tid) const {
        ThreadLabel label{.tid = tid, .name = {}, .pid = kNoThread, .process = {}};
        if (tid == CpuUse::kIdle) label.name = "idle";
        if (const ThreadName* known = contents_.thread(tid)) {
            label.name = known->name;
            label.pid = known->pid;
        } else if (const auto named = names_.find(tid); named != names_.end()) {
            label.name = named->second;
        }
        if (label.pid != kNoThread) label.process = contents_.processName(label.pid);
        return label;
    }

    void takeContents() {
        report_.incomplete = contents_.incomplete();
        constexpr std::string_view kMissing = "missing.";
        for (const auto& [key, why] : contents_.texts()) {
            if (key.starts_with(kMissing)) report_.missing.emplace_back(key.substr(kMissing.size()), why);
        }
        constexpr std::string_view kLost = "lost.";
        for (const auto& [key, count] : contents_.numbers()) {
            if (key.starts_with(kLost)) report_.lost.emplace_back(key.substr(kLost.size()), count);
        }
        if (const std::string* recorder = contents_.text("recorder")) report_.recorder = *recorder;
        report_.reason = readReason(contents_);
        report_.window = contents_.window().value_or(Interval{});
        report_.covered = contents_.covered();
        report_.isHangReport = contents_.window().has_value();
        report_.asksForNoTime =
            !report_.isHangReport && contents_.number("asked_begin_ns") && contents_.number("asked_end_ns");
        report_.beganRealtimeNs = contents_.realtimeNs(report_.window.beginNs);
        if (const auto tid = contents_.hungTid()) report_.hung.tid = *tid;
        if (const auto pid = contents_.hungPid()) {
            report_.hung.pid = *pid;
            report_.hung.process = contents_.processName(*pid);
        }
        if (const ThreadName* known = contents_.thread(report_.hung.tid)) report_.hung.name = known->name;
    }

    void takeEvents() {
        ThreadTimelineBuilder builder(report_.hung.tid);
        CpuUse use(report_.window.common(report_.covered));
        forEachSchedEvent(scan_, contents_, [&](const SchedEvent& event) {
            if (report_.hung.tid != kNoThread) builder.add(event);
            use.add(event);
            if (!event.nextName.empty() && names_.size() < kMostNames && contents_.thread(event.next) == nullptr) {
                names_.try_emplace(event.next, event.nextName.substr(0, kLongestName));
            }
        });
        report_.timeline = builder.finish(report_.window, report_.covered, contents_.hints(), depth_.slices);
        CpuUse::Summary summary = use.finish();
        report_.idleNs = summary.idleNs;
        report_.cpus = summary.cpus;
        for (const CpuUse::Use& entry : summary.users) {
            if (report_.topUsers.size() < depth_.users) {
                report_.topUsers.push_back({.thread = labelOf(entry.tid), .ranNs = entry.ranNs});
            }
            const ThreadName* const known = contents_.thread(entry.tid);
            if (!report_.topOfProcess && entry.tid != report_.hung.tid && known != nullptr &&
                known->pid == report_.hung.pid) {
                report_.topOfProcess = ToldUse{.thread = labelOf(entry.tid), .ranNs = entry.ranNs};
            }
        }
        users_ = std::move(summary.users);
    }

    std::vector<ToldFrame> toldStack(const StackSample& sample) const {
        std::vector<ToldFrame> stack;
        for (Frame& frame : contents_.framesOf(sample)) stack.push_back({.frame = std::move(frame), .symbol = {}});
        if (nameFrames_) nameFrames_(contents_, stack);
        return stack;
    }

    void takeOtherStacks(const StackSample& hung) {
        if (depth_.stacks == 0) return;
        report_.stacks.push_back({.thread = report_.hung, .frames = report_.stack, .problem = hung.problem});
        for (const StackSample& sample : contents_.samples()) {
            if (sample.tid == report_.hung.tid) continue;
            if (report_.stacks.size() > depth_.stacks) {
                ++report_.stacksLeftOut;
                continue;
            }
            report_.stacks.push_back(
                {.thread = labelOf(sample.tid), .frames = toldStack(sample), .problem = sample.problem});
        }
    }

    bool isFrozen() const { return contents_.number("hung_frozen").value_or(0) != 0; }

    void takeStack() {
        // Known without the names of the kernel's functions, which the file does not have.
        if (isFrozen()) {
            report_.waitPlace = {.kind = WaitPlace::Kind::frozen, .text = "the freezer of its group", .function = {}};
        }
        const auto& samples = contents_.samples();
        const auto sample = std::ranges::find(samples, report_.hung.tid, &StackSample::tid);
        if (report_.hung.tid == kNoThread || sample == samples.end()) {
            report_.stackProblem = "the file has no stack of the hung thread";
            return;
        }
        report_.stackProblem = sample->problem;
        report_.stack = toldStack(*sample);
        takeOtherStacks(*sample);
        std::vector<std::string> kernelFunctions;
        for (const ToldFrame& told : report_.stack) {
            if (!told.frame.isKernel()) break;
            kernelFunctions.push_back(told.symbol.empty() ? told.frame.name : told.symbol);
        }
        if (!isFrozen()) report_.waitPlace = waitPlaceOf(kernelFunctions);
    }

    void takeWaits() {
        struct Looked {
            std::size_t wait;
            ThreadTimelineBuilder builder;
        };
        std::vector<Looked> looked;
        for (const Wait& wait : report_.timeline.longestWaits) {
            if (report_.waits.size() >= depth_.waits) break;
            // The longest first: behind one that matters, those of no weight would only be in the way.
            if (!report_.waits.empty() && wait.inWindowNs < report_.window.length() / kLeastToldWait) break;
            ToldWait told{.wait = wait, .waker = {}, .wakerBefore = {}};
            if (wait.waker) {
                told.waker = labelOf(wait.waker->tid);
                if (!wait.waker->byInterrupt && wait.waker->tid > CpuUse::kIdle && looked.size() < depth_.blockers) {
                    looked.push_back({report_.waits.size(), ThreadTimelineBuilder(wait.waker->tid)});
                }
            }
            report_.waits.push_back(std::move(told));
        }
        if (looked.empty()) return;
        forEachSchedEvent(scan_, contents_, [&](const SchedEvent& event) {
            for (Looked& entry : looked) entry.builder.add(event);
        });
        for (Looked& entry : looked) {
            ToldWait& told = report_.waits[entry.wait];
            told.wakerBefore = entry.builder.finish(told.wait.interval.common(report_.covered), report_.covered);
            if (!report_.blocker) report_.blocker = entry.wait;
        }
    }

    bool isFellow(std::int32_t tid) const {
        const ThreadName* const known = contents_.thread(tid);
        return tid != report_.hung.tid && known != nullptr && known->pid == report_.hung.pid;
    }

    void takeOtherThreads() {
        if (depth_.otherThreads == 0) return;
        std::vector<std::int32_t> chosen;
        const auto choose = [&](std::int32_t tid) {
            if (tid <= CpuUse::kIdle || tid == report_.hung.tid || std::ranges::find(chosen, tid) != chosen.end())
                return true;
            if (chosen.size() >= depth_.otherThreads) return false;
            chosen.push_back(tid);
            return true;
        };
        for (const ToldWait& told : report_.waits) {
            if (told.waker && !told.wait.waker->byInterrupt) choose(told.waker->tid);
        }
        const std::size_t wakers = chosen.size();
        std::size_t fellowsThatRan = 0;
        for (const CpuUse::Use& use : users_) {
            if (!isFellow(use.tid)) continue;
            ++fellowsThatRan;
            if (!choose(use.tid)) ++report_.fellowsLeftOut;
        }
        for (std::size_t at = 0; at < std::min(users_.size(), kUsersDrawn); ++at) choose(users_[at].tid);
        const std::size_t threads = report_.hung.pid == kNoThread ? 0 : contents_.threadsOf(report_.hung.pid).size();
        // Without the hung one.
        report_.fellowsAtRest = threads > fellowsThatRan + 1 ? threads - fellowsThatRan - 1 : 0;

        std::vector<ThreadTimelineBuilder> builders;
        for (const std::int32_t tid : chosen) builders.emplace_back(tid);
        if (builders.empty()) return;
        forEachSchedEvent(scan_, contents_, [&](const SchedEvent& event) {
            for (ThreadTimelineBuilder& builder : builders) builder.add(event);
        });
        for (std::size_t at = 0; at < chosen.size(); ++at) {
            report_.otherThreads.push_back(
                {.thread = labelOf(chosen[at]),
                 .isWaker = at < wakers,
                 .timeline = builders[at].finish(report_.window, report_.covered, {}, depth_.slices)});
        }
    }

    static constexpr std::size_t kUsersDrawn = 3;
    static constexpr std::size_t kMostNames = std::size_t{1} << 16;
    static constexpr std::size_t kLongestName = 64;

    const ScanFile& scan_;
    AnalysisDepth depth_;
    const NameFrames& nameFrames_;
    TraceContents contents_;
    std::unordered_map<std::int32_t, std::string> names_;
    std::vector<CpuUse::Use> users_;
    HangReport report_;
};

}  // namespace

std::string HangReport::app() const {
    if (reason.processPath && !reason.processPath->empty()) return std::string(programOf(*reason.processPath));
    return hung.process;
}

HangReport analyse(const ScanFile& scan, const AnalysisDepth& depth, const NameFrames& nameFrames) {
    return Analysis(scan, depth, nameFrames).run();
}

}  // namespace quorvix::report
