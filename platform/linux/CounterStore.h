#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "platform/Services.h"
#include "platform/SystemLog.h"
#include "platform/Time.h"
#include "platform/linux/CounterBatch.h"
#include "platform/linux/CounterDatabase.h"
#include "platform/linux/CounterExport.h"

namespace quorvix::linuxos {

struct CounterStoreOptions {
    std::string folder = "/var/lib/quorvix";
    // The node exporter's textfile folder; nothing is exported while it does not exist.
    std::string exportFolder = "/var/lib/prometheus/node-exporter";
    std::chrono::milliseconds writeInterval{1000};
    std::chrono::milliseconds exportInterval{10000};
    // The first wait after a failed write; each further one is twice as long, up to the last.
    std::chrono::milliseconds firstRetry{10000};
    std::chrono::milliseconds lastRetry{600000};
    std::function<WallTime()> wallNow = [] { return std::chrono::system_clock::now(); };
};

// The aggregate counters ("Tallisk"): a bounded batch in memory, a database behind it (docs/counters.md).
// Callers only change the batch, under a mutex that nobody holds across a disk access. The database lives on a thread
// of its own, which begins with the first change, writes at most once an interval and sleeps without a timer when
// nothing is pending. While the disk fails, changes stay in the batch, which is bounded; what does not fit is counted.
class CounterStore : public CounterService {
public:
    // `log` outlives the store.
    explicit CounterStore(SystemLog& log, CounterStoreOptions options = {});
    // Writes what is pending, then ends the thread. The daemon itself ends through flush().
    ~CounterStore() override;
    CounterStore(const CounterStore&) = delete;
    CounterStore& operator=(const CounterStore&) = delete;

    void addToScalar(std::string_view key, std::int64_t value) override;
    void setScalar(std::string_view key, std::int64_t value) override;
    void pushToDistribution(std::string_view key, std::string_view process, double value) override;

    // Asks for everything up to now to be written, and waits for it at most `budget`. False: not written in time.
    bool flush(std::chrono::milliseconds budget);
    JsonObject selfCounters() const;

private:
    using Clock = std::chrono::steady_clock;

    template <class Change>
    void change(Change&& apply);
    void startThread();
    void run();
    void waitForWork(std::unique_lock<std::mutex>& lock);
    bool mustWrite(Clock::time_point now) const;
    bool mustExport(Clock::time_point now) const;
    void writePending(std::unique_lock<std::mutex>& lock);
    void exportNow(std::unique_lock<std::mutex>& lock);
    void noteWriteOutcome(const CounterDatabase::Failure& failure);

    const CounterStoreOptions options_;
    const LogHandle log_;

    mutable std::mutex mutex_;
    std::condition_variable work_;
    std::condition_variable done_;
    // All below under the mutex, but for the last two, which are the thread's own.
    CounterBatch pending_;
    CounterRefusals refusals_;
    Clock::time_point writeDue_{};
    Clock::time_point exportDue_{};
    Clock::time_point lastExport_{};
    std::chrono::milliseconds retry_{0};  // 0: the last write worked
    bool exportPending_ = false;
    bool ending_ = false;
    std::uint64_t flushesAsked_ = 0;
    std::uint64_t flushesDone_ = 0;
    bool lastFlushWorked_ = true;
    std::uint64_t changes_ = 0;
    std::uint64_t writes_ = 0;
    std::uint64_t failedWrites_ = 0;
    std::uint64_t exports_ = 0;
    std::uint64_t failedExports_ = 0;
    std::uint64_t movedAside_ = 0;
    std::thread thread_;

    CounterDatabase database_;
    CounterExport export_;
};

}  // namespace quorvix::linuxos
