#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "simulate/Actions.h"
#include "simulate/Journal.h"

namespace quorvix::simulate {

// What decides a run.
struct Options {
    std::uint64_t seed = 1;
    std::uint64_t days = 1;
    std::uint64_t clients = 10;
    // Kinds of actions that are left out.
    std::set<ActionKind> without{};
    // Nothing: all actions; else those of these numbers only.
    std::optional<std::vector<std::uint64_t>> only{};
    // Nothing: as many as the days have; else the run ends after this many minutes.
    std::optional<std::uint64_t> minutes{};

    // As the command line takes them.
    std::string text() const;
};

struct Outcome {
    // Nothing: all went well.
    std::optional<std::string> failure;
    std::uint64_t failedAfterAction = 0;
    std::uint64_t failedAfterMinutes = 0;
    std::vector<std::uint64_t> actions;  // that were applied
    std::uint64_t starts = 0;            // of the daemon
    std::uint64_t dailyResets = 0;       // of the day's credits
    std::uint64_t sum = 0;
    std::string summary;
};

// How far a run is: of its first so many actions those that take part were applied, and the last of them may have ended
// it.
struct Progress {
    std::uint64_t actions = 0;
    std::uint64_t minutes = 0;
};
using OnProgress = std::function<void(const Progress&)>;

// One run from the start of the device to its end. Exceptions of the daemon are failures too.
Outcome simulate(const Options& options, Journal& journal, const OnProgress& onProgress = {});

// The numbers of the actions that such a run applied.
std::vector<std::uint64_t> actionsOf(const Options& options, const Progress& progress);

}  // namespace quorvix::simulate
