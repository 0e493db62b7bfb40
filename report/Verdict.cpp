#include "report/Verdict.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace quorvix::report {

namespace {

std::string percent(double share) {
    char text[32];
    std::snprintf(text, sizeof(text), "%.1f %%", share * 100);
    return text;
}

struct Candidate {
    Cause cause;
    std::uint64_t timeNs;
    std::string_view doing;
};

std::string_view doingOf(Cause cause) {
    switch (cause) {
        case Cause::busy: return "ran";
        case Cause::starved: return "wanted to run and did not";
        case Cause::blocked: return "slept";
        case Cause::io: return "waited uninterruptibly";
        case Cause::stopped: return "was stopped";
        case Cause::unknown: break;
    }
    return "is not known";
}

}  // namespace

std::string_view nameOf(Cause cause) {
    switch (cause) {
        case Cause::busy: return "busy";
        case Cause::starved: return "starved";
        case Cause::blocked: return "blocked";
        case Cause::io: return "io";
        case Cause::stopped: return "stopped";
        case Cause::unknown: break;
    }
    return "unknown";
}

Shares sharesOf(const ThreadTimeline& timeline) {
    const std::uint64_t length = timeline.window.length();
    if (length == 0) return {.unknown = 1};
    const auto share = [&](Activity activity) {
        return static_cast<double>(timeline.at(activity)) / static_cast<double>(length);
    };
    return {.running = share(Activity::running),
            .runnable = share(Activity::runnable),
            .sleeping = share(Activity::sleeping),
            .uninterruptible = share(Activity::uninterruptible),
            .stopped = share(Activity::stopped),
            .gone = share(Activity::gone),
            .unknown = share(Activity::unknown)};
}

void applyWaitPlace(ThreadTimeline& timeline, const WaitPlace& place) {
    if (!timeline.ongoing) return;
    const Activity before = timeline.ongoing->activity;
    Activity after = before;
    switch (place.kind) {
        case WaitPlace::Kind::none: return;
        case WaitPlace::Kind::event:
        case WaitPlace::Kind::lock: after = Activity::sleeping; break;
        case WaitPlace::Kind::io: after = Activity::uninterruptible; break;
        case WaitPlace::Kind::stopped:
        case WaitPlace::Kind::frozen: after = Activity::stopped; break;
    }
    // A thread that could run does not wait, whatever its stack says; what is stopped stays so.
    if (before != Activity::sleeping && before != Activity::uninterruptible) return;
    timeline.at(before) -= timeline.ongoing->inWindowNs;
    timeline.at(after) += timeline.ongoing->inWindowNs;
    timeline.strip.move(before, after, timeline.ongoing->interval);
    for (Wait& wait : timeline.longestWaits) {
        if (!wait.hasEnded && wait.activity == before) wait.activity = after;
    }
    timeline.ongoing->activity = after;
}

Verdict judge(const ThreadTimeline& timeline) {
    Verdict verdict;
    verdict.shares = sharesOf(timeline);
    const Shares& shares = verdict.shares;
    if (timeline.tooManyEvents) {
        verdict.because = "the thread has more events than are looked at";
        return verdict;
    }
    const double known = 1 - shares.unknown - shares.gone;
    if (known < kLeastKnownShare) {
        verdict.because =
            "only " + percent(known) + " of the hang is known, at least " + percent(kLeastKnownShare) + " must be";
        return verdict;
    }
    const std::uint64_t asleep = timeline.at(Activity::sleeping);
    const std::uint64_t inIo = timeline.at(Activity::uninterruptible);
    const Cause waiting = inIo >= asleep && inIo > 0 ? Cause::io : Cause::blocked;
    // In the order that decides a tie.
    std::array<Candidate, 4> candidates = {
        Candidate{Cause::stopped, timeline.at(Activity::stopped), doingOf(Cause::stopped)},
        Candidate{waiting, asleep + inIo, "waited"},
        Candidate{Cause::starved, timeline.at(Activity::runnable), doingOf(Cause::starved)},
        Candidate{Cause::busy, timeline.at(Activity::running), doingOf(Cause::busy)}};
    std::ranges::stable_sort(candidates, std::ranges::greater(), &Candidate::timeNs);
    const auto length = static_cast<double>(timeline.window.length());
    const auto shareOf = [&](std::uint64_t timeNs) { return static_cast<double>(timeNs) / length; };

    verdict.cause = candidates[0].cause;
    verdict.because =
        "it " + std::string(candidates[0].doing) + " for " + percent(shareOf(candidates[0].timeNs)) + " of the hang";
    if (verdict.cause == waiting && asleep > 0 && inIo > 0) {
        verdict.because += ": slept " + percent(shareOf(asleep)) + ", uninterruptibly " + percent(shareOf(inIo));
    }
    if (candidates[1].timeNs > 0 && shareOf(candidates[0].timeNs) - shareOf(candidates[1].timeNs) < kCloseShare) {
        verdict.remarks.push_back("nearly as long it " + std::string(candidates[1].doing) + ": " +
                                  percent(shareOf(candidates[1].timeNs)));
    }
    const std::uint64_t slept = asleep + inIo;
    if (timeline.sleeps >= kLeastPolls && slept > 0) {
        const auto longest = std::ranges::find_if(timeline.longestWaits, [](const Wait& wait) {
            return wait.activity == Activity::sleeping || wait.activity == Activity::uninterruptible;
        });
        verdict.isPolling = longest != timeline.longestWaits.end() &&
                            static_cast<double>(longest->inWindowNs) <= kLongestPollShare * static_cast<double>(slept);
    }
    return verdict;
}

}  // namespace quorvix::report
