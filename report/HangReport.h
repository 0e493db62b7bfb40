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

// One hang report, read and judged: all that is shown of it.
struct HangReport {
    std::string incomplete;                                    // empty: the file is whole
    std::vector<std::pair<std::string, std::string>> missing;  // source, why
    std::vector<std::pair<std::string, std::int64_t>> lost;    // CPU, events; -1: not known how many
    std::string recorder;
    bool isHangReport = false;  // it has the attributes of one

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

    // The app's name: its program, without folders.
    std::string app() const;
};

// Gives frames names; the analysis itself knows nothing of this machine.
using NameFrames = std::function<void(const TraceContents&, std::vector<ToldFrame>&)>;

struct AnalysisDepth {
    std::size_t waits = 10;
    std::size_t blockers = 3;  // whose doing is looked at
    std::size_t users = 10;
};

// Walks a file as often as is asked of it, from its start.
using ScanFile = std::function<PacketScan(const PacketFile::Visitor&)>;

HangReport analyse(const ScanFile& scan, const AnalysisDepth& depth = {}, const NameFrames& nameFrames = {});

}  // namespace quorvix::report
