#include "platform/linux/CounterStore.h"

#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <system_error>

namespace quorvix::linuxos {

CounterStore::CounterStore(SystemLog& log, CounterStoreOptions options)
    : options_(std::move(options)),
      log_(log, "com.norvane.quorvix", "platform"),
      database_(options_.folder),
      export_(options_.exportFolder) {}

CounterStore::~CounterStore() {
    {
        const std::lock_guard lock(mutex_);
        ending_ = true;
    }
    work_.notify_one();
    if (thread_.joinable()) thread_.join();
}

void CounterStore::addToScalar(std::string_view key, std::int64_t value) {
    change([&] { return pending_.add(key, value); });
}

void CounterStore::setScalar(std::string_view key, std::int64_t value) {
    change([&] { return pending_.set(key, value); });
}

void CounterStore::pushToDistribution(std::string_view key, std::string_view process, double value) {
    change([&] { return pending_.push(key, process, value); });
}

template <class Change>
void CounterStore::change(Change&& apply) {
    const std::lock_guard lock(mutex_);
    ++changes_;
    const bool wasEmpty = pending_.empty();
    if (const auto refusal = apply()) return refusals_.add(*refusal);
    if (!thread_.joinable()) startThread();
    if (!wasEmpty) return;
    // The first of a burst sets the time, so that the burst becomes one write. A retry's time stands.
    writeDue_ = std::max(writeDue_, Clock::now() + options_.writeInterval);
    work_.notify_one();
}

// No signal is for this thread. Without a thread (none to be had) the next change or flush tries again.
void CounterStore::startThread() {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    try {
        thread_ = std::thread([this] { run(); });
    } catch (const std::system_error&) {
        ++failedWrites_;
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

bool CounterStore::flush(std::chrono::milliseconds budget) {
    std::unique_lock lock(mutex_);
    if (!thread_.joinable()) {
        if (pending_.empty()) return true;
        startThread();
        if (!thread_.joinable()) return false;
    }
    const std::uint64_t mine = ++flushesAsked_;
    work_.notify_one();
    return done_.wait_for(lock, budget, [&] { return flushesDone_ >= mine; }) && lastFlushWorked_;
}

void CounterStore::run() {
    pthread_setname_np(pthread_self(), "tallisk");
    std::unique_lock lock(mutex_);
    while (true) {
        waitForWork(lock);
        const Clock::time_point now = Clock::now();
        const std::uint64_t flush = flushesAsked_;
        if (mustWrite(now)) writePending(lock);
        if (mustExport(now)) exportNow(lock);
        if (flush != flushesDone_) {
            // Not before the export: whoever waits may end the process, and half an export would be left behind.
            flushesDone_ = flush;
            lastFlushWorked_ = retry_.count() == 0;
            done_.notify_all();
        }
        if (ending_) return;
    }
}

bool CounterStore::mustWrite(Clock::time_point now) const {
    return ending_ || flushesAsked_ != flushesDone_ || (!pending_.empty() && now >= writeDue_);
}

bool CounterStore::mustExport(Clock::time_point now) const { return exportPending_ && (ending_ || now >= exportDue_); }

void CounterStore::waitForWork(std::unique_lock<std::mutex>& lock) {
    while (true) {
        const Clock::time_point now = Clock::now();
        if (mustWrite(now) || mustExport(now)) return;
        Clock::time_point until = Clock::time_point::max();
        if (!pending_.empty()) until = writeDue_;
        if (exportPending_) until = std::min(until, exportDue_);
        if (until == Clock::time_point::max()) {
            work_.wait(lock);
        } else {
            work_.wait_until(lock, until);
        }
    }
}

// The batch is taken out, so that callers change a new one while this one is written.
void CounterStore::writePending(std::unique_lock<std::mutex>& lock) {
    CounterBatch batch = std::move(pending_);
    pending_ = CounterBatch();
    if (batch.empty()) return;
    CounterRefusals refused;
    lock.unlock();
    const CounterDatabase::Failure failure = database_.write(batch, options_.wallNow(), refused);
    lock.lock();
    movedAside_ = database_.movedAside();
    refusals_.merge(refused);
    if (failure) {
        batch.mergeNewer(pending_, refusals_);
        pending_ = std::move(batch);
    }
    noteWriteOutcome(failure);
}

void CounterStore::noteWriteOutcome(const CounterDatabase::Failure& failure) {
    const Clock::time_point now = Clock::now();
    const bool failedBefore = retry_.count() > 0;
    if (!failure) {
        ++writes_;
        retry_ = std::chrono::milliseconds{0};
        writeDue_ = now + options_.writeInterval;
        exportPending_ = true;
        exportDue_ = lastExport_ + options_.exportInterval;
        if (failedBefore) log_.standard("The counters are written again.");
        return;
    }
    ++failedWrites_;
    retry_ = failedBefore ? std::min(retry_ * 2, options_.lastRetry) : options_.firstRetry;
    writeDue_ = now + retry_;
    if (!failedBefore) log_.standard("The counters could not be written, and are kept in memory: %@", *failure);
}

void CounterStore::exportNow(std::unique_lock<std::mutex>& lock) {
    const CounterRefusals refusals = refusals_;
    exportPending_ = false;
    lastExport_ = Clock::now();
    lock.unlock();
    const auto failure = export_.write(database_, refusals);
    lock.lock();
    if (!failure) {
        ++exports_;
        return;
    }
    ++failedExports_;
    if (failedExports_ == 1) log_.standard("The counters could not be exported: %@", *failure);
}

JsonObject CounterStore::selfCounters() const {
    const std::lock_guard lock(mutex_);
    return {{"changes", changes_},
            {"pendingKeys", std::uint64_t{pending_.size()}},
            {"writes", writes_},
            {"failedWrites", failedWrites_},
            {"exports", exports_},
            {"failedExports", failedExports_},
            {"databasesMovedAside", movedAside_},
            {"refusedTableFull", refusals_.of(CounterRefusal::tableFull)},
            {"refusedProcessFull", refusals_.of(CounterRefusal::processFull)},
            {"refusedKeyTooLong", refusals_.of(CounterRefusal::keyTooLong)},
            {"refusedNotFinite", refusals_.of(CounterRefusal::notFinite)}};
}

}  // namespace quorvix::linuxos
