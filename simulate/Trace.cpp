#include "simulate/Trace.h"

#include <algorithm>
#include <utility>

namespace quorvix::simulate {

std::string_view nameOf(Op op) {
    static constexpr std::string_view kNames[] = {"log",
                                                  "launch log",
                                                  "counter add",
                                                  "counter set",
                                                  "counter push",
                                                  "createFile",
                                                  "unlinkFile",
                                                  "moveFile",
                                                  "close",
                                                  "createNewFile",
                                                  "write",
                                                  "closeChecked",
                                                  "replaceFile",
                                                  "status",
                                                  "unlink",
                                                  "makeDirectory",
                                                  "dump",
                                                  "hud port",
                                                  "hud message",
                                                  "hud release",
                                                  "uniform",
                                                  "synchronise",
                                                  "set preference",
                                                  "power event",
                                                  "interval begin",
                                                  "interval end",
                                                  "make listener",
                                                  "register",
                                                  "ready",
                                                  "exit",
                                                  "read profile",
                                                  "read preference",
                                                  "executable path",
                                                  "serialise",
                                                  "make text",
                                                  "open library",
                                                  "map region",
                                                  "region fault",
                                                  "process name",
                                                  "boot time",
                                                  "list pids",
                                                  "resource usage",
                                                  "host statistics",
                                                  "priority list",
                                                  "memory path",
                                                  "footprint",
                                                  "assertions",
                                                  "system version",
                                                  "kernel memory",
                                                  "extensions",
                                                  "symbol resolver",
                                                  "capability",
                                                  "dump function",
                                                  "platform log"};
    static_assert(std::size(kNames) == static_cast<std::size_t>(Op::count));
    return kNames[static_cast<std::size_t>(op)];
}

std::string_view nameOf(QueueName queue) {
    static constexpr std::string_view kNames[] = {"main", "daemon", "activation", "output"};
    return kNames[static_cast<std::size_t>(queue)];
}

void Trace::beginWork(QueueName queue) {
    queue_ = queue;
    working_ = true;
    current_.begin = time_.monotonicNow();
}

void Trace::endWork() {
    working_ = false;
    if (current_.records.empty()) return;
    if (onRecord) {
        for (const Record& record : current_.records) onRecord(queue_, record);
    }
    if (onWorkEnd) onWorkEnd();
    groups_[static_cast<std::size_t>(queue_)].push_back(std::exchange(current_, {}));
}

Record& Trace::add(Op op, std::string what) {
    Record& record = current_.records.emplace_back();
    record.op = op;
    record.what = std::move(what);
    return record;
}

void Replay::fail(std::string text) const { throw Mismatch{std::string(nameOf(queue_)) + " queue: " + text}; }

void Replay::beginWork(QueueName queue) {
    queue_ = queue;
    working_ = true;
    begin_ = time_.monotonicNow();
    attached_ = false;
    at_ = 0;
    asked_.clear();
}

std::vector<Record>* Replay::group() {
    if (attached_) return &group_.records;
    auto& waiting = trace_.groups_[static_cast<std::size_t>(queue_)];
    if (waiting.empty() || (working_ && waiting.front().begin != begin_)) return nullptr;
    group_ = std::move(waiting.front());
    waiting.pop_front();
    attached_ = true;
    return &group_.records;
}

Record* Replay::next() {
    std::vector<Record>* const records = group();
    if (!records) return nullptr;
    while (at_ < records->size() && isQuestion((*records)[at_].op)) asked_.push_back(std::move((*records)[at_++]));
    return at_ < records->size() ? &(*records)[at_] : nullptr;
}

namespace {
std::string shown(Op op, std::string_view what) { return std::string(nameOf(op)) + " \"" + std::string(what) + "\""; }
}  // namespace

Record Replay::expect(Op op, std::string_view what) {
    Record* const record = next();
    if (!record) fail("expected " + shown(op, what) + ", and nothing more was done");
    if (record->op != op || record->what != what) {
        fail("expected " + shown(op, what) + ", got " + shown(record->op, record->what));
    }
    return expectAny(op);
}

Record Replay::expectAny(Op op) {
    Record* const record = next();
    if (!record) fail("expected " + shown(op, "...") + ", and nothing more was done");
    if (record->op != op) fail("expected " + shown(op, "...") + ", got " + shown(record->op, record->what));
    ++at_;
    if (record->spent.count() > 0) time_.spend(record->spent);
    return std::move(*record);
}

Record Replay::question(Op op, std::string_view what) {
    next();
    const auto found =
        std::ranges::find_if(asked_, [&](const Record& record) { return record.op == op && record.what == what; });
    if (found == asked_.end()) fail("expected the question " + shown(op, what) + ", which was not asked");
    Record record = std::move(*found);
    asked_.erase(found);
    if (record.spent.count() > 0) time_.spend(record.spent);
    return record;
}

Record Replay::questionIfAsked(Op op, std::string_view what) {
    next();
    const bool asked =
        std::ranges::any_of(asked_, [&](const Record& record) { return record.op == op && record.what == what; });
    return asked ? question(op, what) : Record{};
}

std::optional<Record> Replay::takeNumbered(Op op, std::uint64_t number) {
    const auto fits = [&](const Record& record) { return record.op == op && record.number == number; };
    if (!attached_) {
        // Most work leaves no record: the group that waits may be that of later work.
        const auto& waiting = trace_.groups_[static_cast<std::size_t>(queue_)];
        if (waiting.empty() || waiting.front().begin != begin_ || !std::ranges::any_of(waiting.front().records, fits)) {
            return std::nullopt;
        }
    }
    next();
    const auto found = std::ranges::find_if(asked_, fits);
    if (found == asked_.end()) return std::nullopt;
    Record record = std::move(*found);
    asked_.erase(found);
    return record;
}

void Replay::endWork() {
    if (attached_) {
        if (const Record* const record = next()) fail("unexpected " + shown(record->op, record->what));
    }
    working_ = false;
    attached_ = false;
}

void Replay::finish() {
    for (std::size_t queue = 0; queue < std::size(trace_.groups_); ++queue) {
        queue_ = static_cast<QueueName>(queue);
        // Work that only asked has no trace in the model.
        while (group()) {
            at_ = 0;
            asked_.clear();
            if (const Record* const record = next()) fail("unexpected " + shown(record->op, record->what));
            attached_ = false;
        }
    }
}

void Replay::clear() {
    for (auto& groups : trace_.groups_) groups.clear();
    attached_ = false;
}

}  // namespace quorvix::simulate
