#pragma once

#include <cstdint>
#include <string>

#include "hang/HangState.h"
#include "simulate/DailyReports.h"
#include "simulate/FailedRemovals.h"
#include "simulate/HangsOfAWork.h"
#include "simulate/HeldMemory.h"
#include "simulate/World.h"

namespace quorvix::simulate {

// What must hold whatever happens, looked at from outside of both the daemon and the model. Each throws Mismatch.
class Checkers {
public:
    explicit Checkers(World& world) : world_(world) {}

    // For every record of the daemon, as it is complete.
    void see(QueueName queue, const Record& record);
    // After the records of one piece of work.
    void workEnded();
    // Cheap: after every step.
    void afterStep();
    // The whole comparison: every simulated minute. Collects the reports that lie about.
    void everyMinute();
    // Every client is gone and all time-outs have passed: nothing may be left.
    void atTheEnd();

    std::uint64_t reports() const { return reports_; }
    std::uint64_t memoryReports() const { return memoryReports_; }
    std::uint64_t hangs() const { return hangs_; }
    std::uint64_t powerEvents() const { return powerEvents_; }
    std::uint64_t logLines() const { return logLines_; }

private:
    // The daemon's process may be a new one, since any moment: a record can be its first.
    void lookForNewProcess();
    void checkReports();

    World& world_;
    std::uint64_t reports_ = 0;
    std::uint64_t memoryReports_ = 0;
    std::uint64_t hangs_ = 0;
    std::uint64_t powerEvents_ = 0;
    std::uint64_t logLines_ = 0;
    DailyReports dailyReports_{HangState::kDefaultMaxDailyLogs};
    FailedRemovals failedRemovals_;
    HangsOfAWork hangsOfAWork_;
    HeldMemory heldMemory_;
    std::uint64_t minutes_ = 0;
    std::uint64_t starts_ = 0;
};

}  // namespace quorvix::simulate
