#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "report/ThreadTimeline.h"
#include "report/WaitPlace.h"

namespace quorvix::report {

// Why a thread hung, in a word.
enum class Cause {
    busy,     // it ran
    starved,  // it wanted to run, and others ran instead or its group was throttled
    blocked,  // it waited for another thread, a message, a timer
    io,       // it waited for a device or a file system
    stopped,  // a signal, a tracer or the freezer held it
    unknown,  // the recorder did not cover enough to tell
};
std::string_view nameOf(Cause cause);

// At least this much of the window must be known.
inline constexpr double kLeastKnownShare = 0.5;
// A second cause with nearly as large a share is told with the first.
inline constexpr double kCloseShare = 0.1;
// So many sleeps, none of them with more than this share of all sleep, are a thread that looks again and again.
inline constexpr std::uint64_t kLeastPolls = 10;
inline constexpr double kLongestPollShare = 0.25;

struct Shares {
    double running = 0, runnable = 0, sleeping = 0, uninterruptible = 0, stopped = 0, gone = 0, unknown = 0;
};

// What the window's time was made of, as parts of 1.
Shares sharesOf(const ThreadTimeline& timeline);

struct Verdict {
    Cause cause = Cause::unknown;
    Shares shares;
    bool isPolling = false;            // it slept many times, none of them long
    std::string because;               // the rule that decided, with its figures
    std::vector<std::string> remarks;  // what else weighs: a close second, the kernel's word on the wait
};

// Takes what a stack says about the wait that was going on at the dump into account: a sleep in a file system is
// input and output, an uninterruptible wait for a lock is not, a frozen thread is stopped.
void applyWaitPlace(ThreadTimeline& timeline, const WaitPlace& place);

// Decides from the times alone:
// 1. less than kLeastKnownShare known: unknown;
// 2. else the largest of: ran, wanted to run, waited (both kinds together), stopped; on a tie the one that is least the
//    thread's own doing (stopped, waited, wanted to run, ran);
// 3. waited: io where the uninterruptible time is at least the other, else blocked.
Verdict judge(const ThreadTimeline& timeline);

}  // namespace quorvix::report
