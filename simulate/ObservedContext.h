#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include "platform/sim/SimPlatform.h"
#include "simulate/Faults.h"
#include "simulate/Trace.h"

namespace quorvix::simulate::observed {

// What all observed services share: the simulated services behind them, where calls are written down, and what is to go
// wrong. Belongs to the platform of one run.
struct Context {
    sim::SimPlatform& device;
    Trace& trace;
    FaultPlan& faults;
    std::map<int, std::string> openNames{};
    std::map<const void*, std::uint64_t> mappings{};
    std::uint64_t mappingsMade = 0;

    // Outside of work there is nobody who compares: start-up runs in work of its own on the main queue.
    Record& record(Op op, std::string what) { return trace.add(op, std::move(what)); }
    // Whether a question that has no error finds nothing out this time, which is written down.
    bool leavesOut(Op op) {
        const Fault fault = faults.take(op);
        if (fault.fails()) record(op, {}).error = fault.error;
        return fault.fails();
    }
    // The time of a slow call passes after the call was written down; but not at the end of a process, which says of
    // each of its records that it goes.
    void spend(Record& record, const Fault& fault) {
        if (fault.slow.count() == 0 || !trace.inWork() || trace.queue() == QueueName::main) return;
        record.spent = fault.slow;
        device.scheduler.spend(fault.slow);
    }
};

}  // namespace quorvix::simulate::observed
