#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "report/CpuUse.h"
#include "report/PacketFile.h"
#include "report/ThreadTimeline.h"
#include "report/TraceContents.h"
#include "report/Verdict.h"

namespace quorvix::report {

struct ThreadLabel {
    std::int32_t tid = kNoThread;
    std::string name;
    std::int32_t pid = kNoThread;
    std::string process;
};

// What the reason record of the report says; absent what it lacks.
struct Reason {
    std::string text;  // as it stands in the file
    std::optional<std::string> reason, service, processPath;
    std::optional<std::int64_t> pid, threadId;
};

struct ToldWait {
    Wait wait;
    std::optional<ThreadLabel> waker;
    // What the waker did from the wait's begin until it woke the thread; only for the longest waits.
    std::optional<ThreadTimeline> wakerBefore;
};

struct ToldFrame {
    Frame frame;
    std::string symbol;  // "name+0x12" where this machine knows it
};

struct ToldUse {
    ThreadLabel thread;
    std::uint64_t ranNs = 0;
};

// Another thread over the time of the hang.
struct ToldThread {
    ThreadLabel thread;
    bool isWaker = false;  // it ended one of the hung thread's longest waits
    ThreadTimeline timeline;
};

struct ToldStack {
    ThreadLabel thread;
    std::vector<ToldFrame> frames;  // innermost first
    std::string problem;            // why there are no or few
};

// One hang report, read and judged: all that is shown of it.
struct HangReport {
    std::string incomplete;                                    // empty: the file is whole
    std::vector<std::pair<std::string, std::string>> missing;  // source, why
    std::vector<std::pair<std::string, std::int64_t>> lost;    // CPU, events; -1: not known how many
    std::string recorder;
    bool isHangReport = false;   // it has the attributes of one
    bool asksForNoTime = false;  // it has them, and no time lies between begin and end

    Reason reason;
    ThreadLabel hung;
    std::optional<std::int64_t> beganRealtimeNs;
    Interval window;
    Interval covered;

    ThreadTimeline timeline;
    Verdict verdict;
    WaitPlace waitPlace;
    std::vector<ToldWait> waits;
    std::optional<std::size_t> blocker;  // index in waits of the one whose end tells most
    std::vector<ToldFrame> stack;        // of the hung thread, innermost first
    std::string stackProblem;

    std::vector<ToldUse> topUsers;
    std::optional<ToldUse> topOfProcess;  // of the hung thread's fellows, the one that ran most
    std::uint64_t idleNs = 0;
    std::uint64_t cpus = 0;

    // Where they were asked for. Those that ended waits first, then the hung thread's fellows and who else ran much.
    std::vector<ToldThread> otherThreads;
    std::size_t fellowsLeftOut = 0;  // of its process, that ran and are not among these
    std::size_t fellowsAtRest = 0;   // of its process, that did not run in the hang
    std::vector<ToldStack> stacks;   // of all threads, the hung one first
    std::size_t stacksLeftOut = 0;

    // The app's name: its program, without folders.
    std::string app() const;
};

// Gives frames names; the analysis itself knows nothing of this machine.
using NameFrames = std::function<void(const TraceContents&, std::vector<ToldFrame>&)>;

struct AnalysisDepth {
    std::size_t waits = 10;
    std::size_t blockers = 3;  // whose doing is looked at
    std::size_t users = 10;
    // For a picture; none of it unless it is asked for.
    std::size_t slices = 0;        // of each thread's strip
    std::size_t otherThreads = 0;  // that have one
    std::size_t stacks = 0;        // besides the hung thread's
};

// Walks a file as often as is asked of it, from its start.
using ScanFile = std::function<PacketScan(const PacketFile::Visitor&)>;

HangReport analyse(const ScanFile& scan, const AnalysisDepth& depth = {}, const NameFrames& nameFrames = {});

}  // namespace quorvix::report
