#pragma once

#include <sched.h>
#include <time.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace quorvix::bench {

// What all benchmarks share: one CPU, rounds that measure the subject and its floor in turn, and the line that is
// printed. A goal that is missed is said and is no failure, since the machine may be busy; what can't be measured is.

[[noreturn]] inline void fail(const char* what) {
    std::fprintf(stderr, "benchmark failed: %s\n", what);
    std::exit(1);
}

inline void require(bool condition, const char* what) {
    if (!condition) fail(what);
}

// Pins the calling thread, and what it starts from now on, to the CPU it runs on: between two CPUs a wake-up costs
// ten times more than what is measured.
inline void pinToOneCpu() {
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(sched_getcpu(), &one);
    require(sched_setaffinity(0, sizeof one, &one) == 0, "sched_setaffinity");
}

inline double nowNs() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
}

// The value at a share of the sorted values, 0.5 the median.
inline double quantile(std::vector<double> values, double share) {
    require(!values.empty(), "no values");
    std::sort(values.begin(), values.end());
    return values[static_cast<std::size_t>(share * static_cast<double>(values.size() - 1) + 0.5)];
}

inline double median(std::vector<double> values) { return quantile(std::move(values), 0.5); }

enum class Goal { atMost, atLeast, none };

inline const char* verdict(Goal goal, double value, double limit) {
    if (goal == Goal::none) return "for comparison";
    return (goal == Goal::atMost ? value <= limit : value >= limit) ? "ok" : "MISSED";
}

// Figures of rounds in which the subject and its floor were measured one right after the other.
class Comparison {
public:
    Comparison(const char* name, const char* unit) : name_(name), unit_(unit) {}

    void add(double measured, double floor) {
        measured_.push_back(measured);
        floor_.push_back(floor);
        ratio_.push_back(measured / floor);
    }

    // The ratio is the median of the rounds' ratios: a disturbance that lasts for a round hits both of its sides. The
    // spread is that of the middle 80 % of the rounds.
    void print(Goal goal, double limit) const {
        const double ratio = median(ratio_);
        std::printf("%s: measured %.4g %s, floor %.4g %s, ratio %.3f", name_, median(measured_), unit_, median(floor_),
                    unit_, ratio);
        if (goal != Goal::none) std::printf(" (goal %s %.4g)", goal == Goal::atMost ? "<=" : ">=", limit);
        std::printf(": %s  [%zu rounds, ratio %.3f..%.3f]\n", verdict(goal, ratio, limit), ratio_.size(),
                    quantile(ratio_, 0.1), quantile(ratio_, 0.9));
        std::fflush(stdout);
    }

private:
    const char* name_;
    const char* unit_;
    std::vector<double> measured_;
    std::vector<double> floor_;
    std::vector<double> ratio_;
};

// Where the goal is a value of its own, and not a ratio.
inline void printAbsolute(const char* name, const char* unit, double measured, double limit) {
    std::printf("%s: measured %.4g %s (goal <= %.4g): %s\n", name, measured, unit, limit,
                verdict(Goal::atMost, measured, limit));
    std::fflush(stdout);
}

}  // namespace quorvix::bench
