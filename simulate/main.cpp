// quorvix_simulate: runs the whole daemon on a simulated device beside a model of its rules.

#include <algorithm>
#include <cstdio>
#include <string>

#include "simulate/Apart.h"
#include "simulate/CanaryName.h"
#include "simulate/CommandLine.h"
#include "simulate/Shrink.h"
#include "simulate/Simulation.h"

using namespace quorvix::simulate;

namespace {

int run(const CommandLine& line, const OnProgress& onProgress) {
    Journal journal(line.showLog ? stdout : nullptr);
    const Outcome outcome = simulate(line.options, journal, onProgress);
    if (!outcome.failure) {
        std::printf("ok: %s\nlog: %llu lines, sum %016llx\n", outcome.summary.c_str(),
                    static_cast<unsigned long long>(journal.lines()), static_cast<unsigned long long>(outcome.sum));
        return 0;
    }
    std::printf("FAILED after action %llu at %s\n", static_cast<unsigned long long>(outcome.failedAfterAction),
                outcome.failure->c_str());
    std::fflush(stdout);
    return 1;
}

}  // namespace

int main(int count, char** arguments) {
    auto line = parseCommandLine(count, arguments);
    if (!line) return 2;
    if (!line->canary.empty() && line->canary != canaryName()) {
        std::fprintf(stderr,
                     "this program does not break the rule %s: ./dev simulate --canary %s runs the one that does\n",
                     line->canary.c_str(), line->canary.c_str());
        return 2;
    }
    line->canary = canaryName();
    std::printf("simulate %s\n", line->options.text().c_str());
    std::fflush(stdout);
    // In this process, as a debugger wants it.
    if (!line->shrinks) return run(*line, {});
    const Ending ending = runApart([&](const OnProgress& onProgress) { return run(*line, onProgress); });
    if (!ending.failed) return 0;
    if (!ending.crash.empty()) {
        std::printf("FAILED within action %llu in minute %llu: %s\n",
                    static_cast<unsigned long long>(std::max<std::uint64_t>(ending.progress.actions, 1) - 1),
                    static_cast<unsigned long long>(ending.progress.minutes), ending.crash.c_str());
        std::fflush(stdout);
    }
    const Options smallest = shrink(line->options, ending);
    std::printf("smallest run that fails:\n  ./dev simulate %s%s\n", line->canaryText().c_str(),
                smallest.text().c_str());
    return 1;
}
