#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "swivex/Outcome.h"
#include "swivex/TraceInstance.h"

namespace quorvix::swivex {

// Switches the flight recorder on and off: a tracing instance of its own, which lives in the kernel and needs no
// process. It overwrites what is oldest, on the monotonic clock. Used by quorvixctl; a dump only reads.
class FlightRecorder {
public:
    static constexpr std::uint64_t kDefaultKilobytes = 8192;  // of each CPU

    struct Options {
        std::uint64_t kilobytes = kDefaultKilobytes;
    };
    struct Armed {
        bool wasOn = false;
        std::vector<std::string> notRecorded;  // events that this kernel does not have
    };
    struct Cpu {
        unsigned number = 0;
        std::uint64_t entries = 0;
        std::uint64_t overrun = 0;            // overwritten since it was armed: expected of a ring
        std::uint64_t lost = 0;               // not written at all
        std::optional<double> oldestSeconds;  // CLOCK_MONOTONIC of the oldest event that it holds
    };
    struct Status {
        bool on = false;
        std::string problem;  // why it is on and of no use; else empty
        std::string clock;
        std::uint64_t kilobytes = 0;  // of each CPU
        double nowSeconds = 0;        // CLOCK_MONOTONIC
        std::vector<std::string> events;
        std::vector<std::string> notRecorded;
        std::vector<Cpu> cpus;
    };

    explicit FlightRecorder(TraceInstance instance) : instance_(std::move(instance)) {}

    // Makes the instance, or puts an existing one right without clearing it where that can be avoided. What it had to
    // make is removed again when a part of it fails.
    Outcome<Armed> arm(const Options& options);
    // Removes the instance. True: there was one. Waits up to `patience` for a dump that still reads it.
    Outcome<bool> disarm(double patienceSeconds = 5);
    // Fails only when it can't be found out.
    Outcome<Status> status() const;

private:
    Outcome<Armed> setUp(const Options& options);
    void markEveryCpu() const;

    TraceInstance instance_;
};

}  // namespace quorvix::swivex
