#include "simulate/Shrink.h"

#include <algorithm>

namespace quorvix::simulate {

namespace {

// Runs that a search may take: a run of many days is long.
constexpr int kMostRuns = 400;
// One that does not end takes seconds.
constexpr int kRunsForAStuckOne = 5;

class Search {
public:
    explicit Search(Options options) : best_(std::move(options)) {}

    // Whether this run fails; if so it is the best.
    bool tries(const Options& options) {
        if (++runs_ > kMostRuns) return false;
        const Ending ending = runApart(
            [&](const OnProgress& onProgress) {
                Journal silent;
                return simulate(options, silent, onProgress).failure ? 1 : 0;
            },
            true);
        if (ending.stuck) runs_ += kRunsForAStuckOne;
        if (!ending.failed) return false;
        best_ = options;
        // What comes after the failure plays no part.
        best_.minutes = std::min(best_.minutes.value_or(UINT64_MAX), ending.progress.minutes + 1);
        if (best_.only) best_.only = actionsOf(options, ending.progress);
        return true;
    }
    bool out() const { return runs_ > kMostRuns; }
    const Options& best() const { return best_; }

private:
    Options best_;
    int runs_ = 0;
};

// Leaves out ever smaller parts of the actions, as long as the rest fails.
void dropActions(Search& search) {
    for (std::size_t parts = 2; !search.out();) {
        const std::vector<std::uint64_t> all = *search.best().only;
        if (all.empty()) return;
        const std::size_t length = std::max<std::size_t>(1, (all.size() + parts - 1) / parts);
        bool dropped = false;
        for (std::size_t first = 0; first < all.size() && !dropped; first += length) {
            Options fewer = search.best();
            fewer.only = all;
            fewer.only->erase(fewer.only->begin() + static_cast<std::ptrdiff_t>(first),
                              fewer.only->begin() + static_cast<std::ptrdiff_t>(std::min(first + length, all.size())));
            dropped = search.tries(fewer);
        }
        if (dropped) {
            parts = std::max<std::size_t>(2, parts - 1);
        } else if (length == 1) {
            return;
        } else {
            parts = std::min(parts * 2, all.size());
        }
    }
}

}  // namespace

Options shrink(const Options& options, const Ending& ending) {
    Options first = options;
    first.minutes = ending.progress.minutes + 1;
    first.only = actionsOf(options, ending.progress);
    Search search(first);
    if (!search.tries(first)) return options;
    dropActions(search);
    for (std::uint64_t clients = 1; clients < search.best().clients; ++clients) {
        Options fewer = search.best();
        fewer.clients = clients;
        if (search.tries(fewer)) break;
    }
    return search.best();
}

}  // namespace quorvix::simulate
