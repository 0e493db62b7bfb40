#include "simulate/Simulation.h"

#include <algorithm>
#include <array>
#include <exception>

#include "simulate/Checkers.h"
#include "simulate/Text.h"
#include "simulate/World.h"

namespace quorvix::simulate {

namespace {

using namespace std::chrono_literals;

constexpr std::uint64_t kMinutesOfADay = 24 * 60;

// A run in progress.
class Run {
public:
    Run(const Options& options, Journal& journal, const OnProgress& onProgress)
        : options_(options),
          journal_(journal),
          onProgress_(onProgress),
          world_(options.seed),
          fleet_(world_, options.clients),
          checkers_(world_),
          begin_(world_.device.scheduler.monotonicNow()) {
        world_.trace.onRecord = [this](QueueName queue, const Record& record) { write(queue, record); };
        world_.trace.onWorkEnd = [this] { checkers_.workEnded(); };
    }

    void go(Outcome& outcome) {
        const std::uint64_t minutes = options_.minutes.value_or(options_.days * kMinutesOfADay);
        const auto end = begin_ + std::chrono::minutes(minutes);
        fleet_.setUp(Dice::forked(options_.seed, 0));
        auto moment = begin_;
        std::size_t nextOnly = 0;
        for (std::uint64_t index = 0;; ++index) {
            const Action action = actionOf(options_.seed, index);
            moment += action.gap;
            if (moment >= end) break;
            if (options_.only) {
                if (nextOnly == options_.only->size()) break;
                if ((*options_.only)[nextOnly] != index) continue;
                ++nextOnly;
            }
            if (options_.without.contains(action.kind)) continue;
            moveTo(moment);
            outcome.failedAfterAction = index;
            outcome.actions.push_back(index);
            ++actionsOf_[static_cast<std::size_t>(action.kind)];
            progress_.actions = index + 1;
            tellProgress();
            if (journals())
                journal_.line(print("%s action %llu %s", time().c_str(), ull(index), nameOf(action.kind).data()));
            fleet_.apply(action);
        }
        moveTo(end);
        if (world_.running()) {
            fleet_.everyoneDies();
            // Time-outs, captures and what is slow.
            world_.faults.clear();
            moveTo(world_.device.scheduler.monotonicNow() + 10min);
        }
        checkers_.atTheEnd();
        summarise(outcome);
    }
    std::uint64_t minutesGone() const {
        return static_cast<std::uint64_t>((world_.device.scheduler.monotonicNow() - begin_) / 1min);
    }
    std::string time() {
        return print("%.3f", std::chrono::duration<double>(world_.device.scheduler.monotonicNow() - begin_).count());
    }

private:
    static unsigned long long ull(std::uint64_t number) { return number; }
    bool journals() const { return true; }

    // Minute by minute, each compared.
    void moveTo(std::chrono::nanoseconds moment) {
        while (world_.device.scheduler.monotonicNow() < moment) {
            const auto now = world_.device.scheduler.monotonicNow();
            const auto minute = begin_ + ((now - begin_) / 1min + 1) * 1min;
            world_.advance(std::min(moment, minute) - now);
            checkers_.afterStep();
            if (minute <= moment) checkers_.everyMinute();
            tellProgress();
        }
    }
    void tellProgress() {
        progress_.minutes = minutesGone();
        if (onProgress_) onProgress_(progress_);
    }
    void write(QueueName queue, const Record& record) {
        checkers_.see(queue, record);
        // The only counter that is set, and only by the reset.
        dailyResets_ += record.op == Op::counterSet;
        std::string line = time();
        line += ' ';
        line += nameOf(queue);
        line += ' ';
        line += nameOf(record.op);
        line += ' ';
        line += record.what;
        if (record.error.value != 0) line += print(" error %d", record.error.value);
        if (record.spent.count() > 0) line += print(" slow %lld ms", static_cast<long long>(record.spent / 1ms));
        journal_.line(line);
    }
    void summarise(Outcome& outcome) {
        outcome.starts = world_.starts;
        outcome.dailyResets = dailyResets_;
        outcome.summary = print(
            "%llu actions, %llu starts of the daemon, %llu daily resets, %llu faults, %llu hangs, %llu reports, "
            "%llu memory reports, %llu power-log events, %llu log lines",
            ull(outcome.actions.size()), ull(world_.starts), ull(dailyResets_), ull(world_.faults.taken()),
            ull(checkers_.hangs()), ull(checkers_.reports()), ull(checkers_.memoryReports()),
            ull(checkers_.powerEvents()), ull(checkers_.logLines()));
    }

    const Options& options_;
    Journal& journal_;
    const OnProgress& onProgress_;
    Progress progress_;
    World world_;
    Fleet fleet_;
    Checkers checkers_;
    std::chrono::nanoseconds begin_;
    std::uint64_t dailyResets_ = 0;
    std::array<std::uint64_t, static_cast<std::size_t>(ActionKind::count)> actionsOf_{};
};

}  // namespace

std::string Options::text() const {
    std::string out = print("--seed %llu --days %llu --clients %llu", static_cast<unsigned long long>(seed),
                            static_cast<unsigned long long>(days), static_cast<unsigned long long>(clients));
    if (minutes) out += print(" --minutes %llu", static_cast<unsigned long long>(*minutes));
    const auto list = [&](const char* name, const auto& entries, auto shown) {
        out += name;
        bool first = true;
        for (const auto& entry : entries) {
            if (!first) out += ',';
            first = false;
            out += shown(entry);
        }
    };
    if (!without.empty()) list(" --without ", without, [](ActionKind kind) { return std::string(nameOf(kind)); });
    if (only) list(" --only ", *only, [](std::uint64_t index) { return std::to_string(index); });
    return out;
}

Outcome simulate(const Options& options, Journal& journal, const OnProgress& onProgress) {
    Outcome outcome;
    journal.line(options.text());
    Run run(options, journal, onProgress);
    const auto fail = [&](const std::string& text) {
        outcome.failure = run.time() + " s: " + text;
        outcome.failedAfterMinutes = run.minutesGone();
    };
    try {
        run.go(outcome);
    } catch (const Mismatch& mismatch) {
        fail(mismatch.text);
    } catch (const std::exception& exception) {
        fail(std::string("the daemon threw: ") + exception.what());
    }
    outcome.sum = journal.sum();
    return outcome;
}

std::vector<std::uint64_t> actionsOf(const Options& options, const Progress& progress) {
    std::vector<std::uint64_t> actions;
    for (std::uint64_t index = 0; index < progress.actions; ++index) {
        if (options.only && !std::ranges::binary_search(*options.only, index)) continue;
        if (!options.without.contains(actionOf(options.seed, index).kind)) actions.push_back(index);
    }
    return actions;
}

}  // namespace quorvix::simulate
