#pragma once

#include <cstdint>
#include <map>
#include <unordered_map>
#include <vector>

#include "report/SchedEvents.h"
#include "report/ThreadTimeline.h"

namespace quorvix::report {

// Adds up how long each thread ran in an interval, over all CPUs. Events of one CPU come in the order of their times.
class CpuUse {
public:
    static constexpr std::size_t kMostThreads = std::size_t{1} << 17;
    static constexpr std::int32_t kIdle = 0;

    explicit CpuUse(const Interval& interval) : interval_(interval) {}

    void add(const SchedEvent& event);

    struct Use {
        std::int32_t tid = kNoThread;
        std::uint64_t ranNs = 0;
    };
    struct Summary {
        std::vector<Use> users;    // the longest first, without idling
        std::uint64_t idleNs = 0;  // of all CPUs seen
        std::uint64_t cpus = 0;    // that have any event
    };
    Summary finish();

private:
    struct Cpu {
        std::int32_t running = kNoThread;
        std::uint64_t sinceNs = 0;
    };
    void count(std::int32_t tid, std::uint64_t fromNs, std::uint64_t untilNs);

    Interval interval_;
    std::map<std::uint32_t, Cpu> cpus_;
    std::unordered_map<std::int32_t, std::uint64_t> ranNs_;
};

}  // namespace quorvix::report
