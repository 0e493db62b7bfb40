#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Result.h"
#include "platform/sim/SimScheduler.h"

namespace quorvix::simulate {

// What the daemon asked of its platform, one call a record.
enum class Op : std::uint8_t {
    // Effects: every one must be expected by the model, in order.
    logLine,
    launchLine,
    counterAdd,
    counterSet,
    counterPush,
    createFile,
    unlinkFile,
    moveFile,
    closeFile,
    createNewFile,
    writeFile,
    closeChecked,
    replaceFile,
    statusPath,
    unlinkPath,
    makeDirectory,
    dump,
    hudPort,
    hudMessage,
    hudRelease,
    uniform,
    synchronise,
    setPreference,
    powerEvent,
    intervalBegin,
    intervalEnd,
    makeListener,
    registerHandler,
    ready,
    exitProcess,
    // Questions: only their answers matter to the model, and only where they were failures.
    firstQuestion,
    readProfile = firstQuestion,
    readPreference,
    executablePath,
    serialise,
    makeText,
    libraryOpen,
    regionMap,
    regionFault,
    processName,
    bootTime,
    listPids,
    resourceUsage,
    hostStatistics,
    priorityList,
    memoryPath,
    footprint,
    assertions,
    systemVersion,
    kernelMemory,
    extensions,
    symbolResolver,
    capability,
    dumpFunction,
    platformLine,
    count
};
std::string_view nameOf(Op op);
inline bool isQuestion(Op op) { return op >= Op::firstQuestion; }

struct Record {
    Op op = Op::count;
    std::string what;
    ErrorCode error{};         // 0: it went well
    std::uint64_t number = 0;  // its answer, where it is a number
    std::chrono::nanoseconds spent{0};
};

// The end of a comparison: the daemon did something else than the model.
struct Mismatch {
    std::string text;
};

// Where work of the daemon runs.
enum class QueueName : std::uint8_t { main, daemon, activation, output, count };
std::string_view nameOf(QueueName queue);

// All that the daemon did since the model last caught up: groups of records, one group for each piece of work that did
// anything, queue by queue.
class Trace {
public:
    explicit Trace(const sim::SimScheduler& time) : time_(time) {}

    void beginWork(QueueName queue);
    void endWork();
    // Forgets what was recorded outside of work: the end of a process is nothing that it does.
    void discard() { current_.records.clear(); }
    bool inWork() const { return working_; }
    QueueName queue() const { return queue_; }
    // Adds to the work that runs now. Precondition: in work.
    Record& add(Op op, std::string what);

    // Called for every record once it is complete, at the end of its work.
    std::function<void(QueueName, const Record&)> onRecord;
    // Called after those of one piece of work.
    std::function<void()> onWorkEnd;

private:
    friend class Replay;
    struct Group {
        std::chrono::nanoseconds begin{0};
        std::vector<Record> records;
    };

    const sim::SimScheduler& time_;
    std::deque<Group> groups_[static_cast<std::size_t>(QueueName::count)];
    Group current_;
    QueueName queue_ = QueueName::main;
    bool working_ = false;
};

// The model's reading of the trace. The model runs the same work after the daemon: whenever it causes an effect it says
// so here, which compares, and gets the answer that the daemon got; time that a slow call took passes for it too.
class Replay {
public:
    Replay(Trace& trace, sim::SimScheduler& modelTime) : trace_(trace), time_(modelTime) {}

    void beginWork(QueueName queue);
    // Nothing of the daemon's work may be left.
    void endWork();
    // The work ended with the process: what was begun is complete.
    void abandonWork() { working_ = false; }

    // The next effect of this work is this one. Throws Mismatch where it is not.
    Record expect(Op op, std::string_view what);
    // The next effect is of this kind, whatever it says.
    Record expectAny(Op op);
    // The daemon asked this during this work, since the last effect or before; throws Mismatch where it did not.
    Record question(Op op, std::string_view what);
    // The same for a question that need not have been asked: a record without an error then.
    Record questionIfAsked(Op op, std::string_view what);
    // Whether a question that has no error found nothing out in this work.
    bool leftOut(Op op) { return questionIfAsked(op, {}).error.value != 0; }
    // What was recorded in this work of this kind for this number, if anything.
    std::optional<Record> takeNumbered(Op op, std::uint64_t number);
    // Throws Mismatch if the daemon did anything that the model did not.
    void finish();
    // After the end of the process.
    void clear();

private:
    // The records of the daemon's work that began when this work did; nullptr where it left none.
    std::vector<Record>* group();
    // The next effect's record; nullptr at the end of the work. Questions before it become answerable.
    Record* next();
    [[noreturn]] void fail(std::string text) const;

    Trace& trace_;
    sim::SimScheduler& time_;
    QueueName queue_ = QueueName::main;
    bool working_ = false;
    bool attached_ = false;
    std::chrono::nanoseconds begin_{0};
    Trace::Group group_;
    std::size_t at_ = 0;
    std::vector<Record> asked_;
};

}  // namespace quorvix::simulate
