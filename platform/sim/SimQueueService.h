#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/WorkQueue.h"
#include "platform/sim/SimScheduler.h"

namespace quorvix::sim {

// A queue in virtual time. All delivery is the scheduler's; the queue remembers what it was made as. The scheduler
// outlives the queue and its timers.
class SimWorkQueue final : public WorkQueue {
public:
    SimWorkQueue(SimScheduler& scheduler, std::string_view label, QualityOfService quality);

    void async(Work work) override;
    void asyncAfter(std::chrono::nanoseconds delay, Work work) override;
    void asyncAt(WallTime time, Work work) override;
    // Fires exactly when due, or in its leeway if the scheduler is set so.
    std::unique_ptr<RepeatingTimer> makeTimer(Work handler) override;
    const std::string& label() const override { return label_; }

    QualityOfService quality() const noexcept { return quality_; }

private:
    SimScheduler& scheduler_;
    std::string label_;
    QualityOfService quality_;
};

// Makes simulated queues and keeps them for the test to look at.
class SimQueueService final : public QueueService {
public:
    explicit SimQueueService(SimScheduler& scheduler) : scheduler_(scheduler) {}

    std::shared_ptr<WorkQueue> makeSerialQueue(std::string_view label, QualityOfService quality) override;
    // Gives the main thread away and throws MainThreadGiven, so that a test can run the whole start-up and go on.
    [[noreturn]] void runMain() override;
    // The part of runMain without the throw. What has piled up is delivered when time is next moved or runPending.
    void giveMainThread() { scheduler_.giveMainThread(); }

    const std::vector<std::shared_ptr<SimWorkQueue>>& queues() const noexcept { return queues_; }
    // The first queue of that label; nullptr if none was made.
    std::shared_ptr<SimWorkQueue> find(std::string_view label) const;

private:
    SimScheduler& scheduler_;
    std::vector<std::shared_ptr<SimWorkQueue>> queues_;
};

}  // namespace quorvix::sim
