#include "swivex/EventCapture.h"

#include <algorithm>
#include <limits>
#include <vector>

namespace quorvix::swivex {

namespace {

// The last switch of a CPU before the window, with names of its own.
struct KeptSwitch {
    Event event;
    std::string prevComm;
    std::string nextComm;

    explicit KeptSwitch(const Event& source) : event(source), prevComm(source.prevComm), nextComm(source.nextComm) {}
    Event at(std::uint64_t timeNs) const {
        Event clamped = event;
        clamped.timeNs = timeNs;
        clamped.prevComm = prevComm;
        clamped.nextComm = nextComm;
        return clamped;
    }
};

// What the newest event of a thread says of it.
struct ThreadMark {
    enum class What { none, left, ran, woken };
    What what = What::none;
    std::uint64_t timeNs = 0;
    std::int64_t state = 0;  // left: its state then

    void see(const Event& event, std::int32_t thread) {
        const bool isSwitch = event.kind == EventKind::schedSwitch;
        if (isSwitch && event.prevPid == thread) {
            take({What::left, event.timeNs, event.prevState});
        } else if (isSwitch && event.nextPid == thread) {
            take({What::ran, event.timeNs, 0});
        }
    }
    void take(const ThreadMark& other) {
        if (other.what != What::none && other.timeNs >= timeNs) *this = other;
    }
};

bool isOf(const Event& event, std::int32_t thread) {
    switch (event.kind) {
        case EventKind::schedSwitch: return event.prevPid == thread || event.nextPid == thread;
        case EventKind::schedWaking:
        case EventKind::schedWakeupNew: return event.nextPid == thread;
        case EventKind::print:
        case EventKind::other: break;
    }
    return false;
}

// One dump's way through the rings.
class Capture {
public:
    Capture(Ring& ring, const TraceInstance& instance, const CaptureRequest& request, const ClockPair& clocks,
            PacketBuffer& file, Attributes& attributes, const Deadline& deadline)
        : ring_(ring),
          instance_(instance),
          request_(request),
          window_(request.window),
          clocks_(clocks),
          file_(file),
          attributes_(attributes),
          deadline_(deadline) {}

    Captured run() {
        if (window_.beginNs > window_.dumpNs) return captured_;
        for (const unsigned cpu : ring_.cpus()) {
            if (deadline_.passed()) {
                captured_.inTime = false;
                break;
            }
            readCpu(cpu);
        }
        noteCoverage();
        noteHungThread();
        return captured_;
    }

private:
    // Since when a CPU is recorded without a hole.
    struct Coverage {
        bool overran = false;
        std::uint64_t oldestNs = 0;  // 0: it holds nothing
    };

    void readCpu(unsigned cpu) {
        const auto holding = ring_.load(cpu, window_.beginNs, deadline_);
        if (!holding) {
            attributes_.missing("recorder", holding.problem());
            unreadable_ = true;
            return;
        }
        // Asked for after the copy: what was overwritten before it is counted by then.
        const bool overran = instance_.count(cpu, "overrun") > 0 || holding->leftOut;
        const std::uint64_t notWritten =
            instance_.count(cpu, "commit overrun") + instance_.count(cpu, "dropped events");
        coverage_.push_back({overran, holding->empty ? 0 : holding->oldestNs});
        if (holding->armedMark) armedNs_ = std::min(armedNs_, holding->oldestNs);
        captured_.inTime = captured_.inTime && !holding->cutShort;

        const bool beginsLate = overran && holding->oldestNs > window_.beginNs;
        // How many the kernel does not tell: its count goes back to the arming.
        if (beginsLate || notWritten > 0 || holding->lostWhileRead > 0) {
            attributes_.set("lost.cpu" + std::to_string(cpu), std::int64_t{-1});
        }
        if (holding->empty) return;
        write(cpu, beginsLate || holding->lostWhileRead > 0);
    }

    void write(unsigned cpu, bool lost) {
        BundleWriter writer(file_, cpu, clocks_);
        if (lost) writer.lost();
        if (const auto before = lookBefore()) {
            attributes_.set("clamped.cpu" + std::to_string(cpu), static_cast<std::int64_t>(before->event.timeNs));
            writer.add(before->at(window_.beginNs));
        }
        const bool whole = ring_.visit(window_.beginNs, window_.dumpNs, deadline_, [&](const Event& event) {
            if (isOf(event, request_.hungThread)) captured_.hungThreadSeen = true;
            if (event.kind == EventKind::schedSwitch) newestSwitchNs_ = std::max(newestSwitchNs_, event.timeNs);
            if (event.kind == EventKind::print && event.text.starts_with(kArmedMark)) {
                markedNs_ = std::max(markedNs_, event.timeNs);
            }
            writer.add(event);
        });
        captured_.inTime = captured_.inTime && whole;
        writer.finish();
        captured_.events += writer.events();
    }

    // The CPU's last switch before the window; takes note of the hung thread on the way. Goes back no further than both
    // are known.
    std::optional<KeptSwitch> lookBefore() {
        std::optional<KeptSwitch> last;
        ThreadMark thread;
        std::uint64_t oldestSeen = std::numeric_limits<std::uint64_t>::max();
        std::optional<KeptSwitch> lastOfPiece;
        ring_.visitEarlier(
            window_.beginNs, deadline_,
            [&](const Event& event) {
                oldestSeen = std::min(oldestSeen, event.timeNs);
                thread.see(event, request_.hungThread);
                if (isOf(event, request_.hungThread) && event.kind == EventKind::schedWaking) {
                    woken_ = std::max(woken_, event.timeNs);
                }
                if (event.kind == EventKind::schedSwitch && !last) lastOfPiece.emplace(event);
            },
            [&] {
                if (!last && lastOfPiece) last = std::move(lastOfPiece);
                lastOfPiece.reset();
                // What another CPU knows of the thread is newer than all that is left here.
                const bool threadKnown = request_.hungThread == 0 || thread.what != ThreadMark::What::none ||
                                         (hung_.what != ThreadMark::What::none && oldestSeen < hung_.timeNs);
                return last && threadKnown;
            });
        hung_.take(thread);
        return last;
    }

    void noteCoverage() {
        // What was not read to its end covers nothing that can be relied on.
        if (unreadable_ || !captured_.inTime || coverage_.empty()) return;
        std::uint64_t begin = 0;
        bool anything = false;
        for (const Coverage& cpu : coverage_) {
            anything = anything || cpu.oldestNs != 0;
            if (cpu.overran) {
                begin = std::max(begin, cpu.oldestNs);
            } else if (armedNs_ != kNever) {
                begin = std::max(begin, armedNs_);
            } else {
                begin = std::max(begin, cpu.oldestNs);
            }
        }
        // Where it was armed again it had not recorded before, and does not tell since when.
        begin = std::max({begin, markedNs_, window_.beginNs});
        std::uint64_t end = window_.dumpNs;
        if (std::string why = instance_.whyNotRecording(); !why.empty()) {
            attributes_.missing("recorder", std::move(why));
            end = newestSwitchNs_;
        }
        if (!anything || begin >= end) return;
        captured_.coveredBeginNs = begin;
        captured_.coveredEndNs = end;
    }

    void noteHungThread() {
        if (hung_.what != ThreadMark::What::left) return;
        // Woken since, and not yet run: it waits for a CPU.
        const bool isWoken = woken_ > hung_.timeNs;
        attributes_.set("hung_left_ns", static_cast<std::int64_t>(hung_.timeNs));
        attributes_.set("hung_left_state", std::string(1, isWoken ? 'R' : stateLetter(hung_.state)));
    }

    static constexpr std::uint64_t kNever = std::numeric_limits<std::uint64_t>::max();

    Ring& ring_;
    const TraceInstance& instance_;
    const CaptureRequest& request_;
    const Window& window_;
    const ClockPair& clocks_;
    PacketBuffer& file_;
    Attributes& attributes_;
    const Deadline& deadline_;

    Captured captured_;
    std::vector<Coverage> coverage_;
    std::uint64_t armedNs_ = kNever;
    std::uint64_t markedNs_ = 0;        // the newest mark inside the window
    std::uint64_t newestSwitchNs_ = 0;  // inside the window
    bool unreadable_ = false;
    ThreadMark hung_;
    std::uint64_t woken_ = 0;
};

}  // namespace

char stateLetter(std::int64_t prevState) {
    // Lowest bits first, as procfs prefers the higher ones.
    constexpr std::string_view kLetters = "SDTtXZPI";
    const std::int64_t bits = prevState & 0xff;
    for (std::size_t index = kLetters.size(); index-- > 0;) {
        if ((bits >> index & 1) != 0) return kLetters[index];
    }
    return 'R';
}

Captured captureEvents(Ring& ring, const TraceInstance& instance, const CaptureRequest& request,
                       const ClockPair& clocks, PacketBuffer& file, Attributes& attributes, const Deadline& deadline) {
    return Capture(ring, instance, request, clocks, file, attributes, deadline).run();
}

}  // namespace quorvix::swivex
