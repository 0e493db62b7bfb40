// quorvix_simulate: runs the whole daemon on a simulated device beside a model of its rules.

#include <cstdio>
#include <cstring>
#include <string>

#include "simulate/CommandLine.h"
#include "simulate/Shrink.h"
#include "simulate/Simulation.h"

using namespace quorvix::simulate;

int main(int count, char** arguments) {
    const auto line = parseCommandLine(count, arguments);
    if (!line) return 2;
    std::printf("simulate %s\n", line->options.text().c_str());
    std::fflush(stdout);
    Journal journal(line->showLog ? stdout : nullptr);
    const Outcome outcome = simulate(line->options, journal);
    if (!outcome.failure) {
        std::printf("ok: %s\nlog: %llu lines, sum %016llx\n", outcome.summary.c_str(),
                    static_cast<unsigned long long>(journal.lines()), static_cast<unsigned long long>(outcome.sum));
        return 0;
    }
    std::printf("FAILED after action %llu at %s\n", static_cast<unsigned long long>(outcome.failedAfterAction),
                outcome.failure->c_str());
    std::fflush(stdout);
    if (line->shrinks) {
        const Options smallest = shrink(line->options, outcome);
        std::printf("smallest run that fails:\n  ./dev simulate %s%s\n", line->canaryText().c_str(),
                    smallest.text().c_str());
    }
    return 1;
}
