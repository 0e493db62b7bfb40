#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "platform/linux/Distribution.h"

namespace quorvix::ctl {

// What the counter store holds (docs/counters.md), in the order of the keys; keys are bytes that apps choose.
struct CounterList {
    struct Scalar {
        std::string key;
        std::int64_t value = 0;
        std::string changed;  // UTC
    };
    struct Hangs {
        std::string key;
        linuxos::Distribution durations;  // milliseconds
        std::string changed;
    };

    std::vector<Scalar> scalars;
    std::vector<Hangs> hangs;

    std::string table() const;
    nlohmann::ordered_json json() const;
};

// The upper bound of the bucket in which the p-th part of all samples (0..1) is reached, but never above the greatest
// sample; 0 without samples.
double percentileOf(const linuxos::Distribution& durations, double p);

// Reads the store while the daemon writes it, and never writes. filter: keys that hold it, letters of ASCII in any
// case; empty: all. Throws std::runtime_error with a text for the operator.
CounterList readCounters(const std::string& path, const std::string& filter);

}  // namespace quorvix::ctl
