#include "platform/linux/PowerLogStore.h"

#include <algorithm>
#include <thread>

namespace quorvix::linuxos {

PowerLogStore::PowerLogStore(SystemLog& log, PowerLogStoreOptions options)
    : options_(std::move(options)),
      log_(log, "com.norvane.quorvix", "platform"),
      database_(options_.folder, options_.limits) {}

void PowerLogStore::sendEvent(std::int32_t category, std::string_view name, const PowerLogDictionary& dictionary) {
    const std::lock_guard lock(mutex_);
    events_.add(1);
    const std::optional<std::size_t> table = powerLogTableOf(category, name);
    if (!table) return refuse(category, name);
    if (*table == 0) {
        storePending();
    } else if (nextTable_ == 0 || *table < nextTable_) {
        return refuse(category, name);
    }
    pending_.events[*table] = dictionary;
    ++pendingEvents_;
    nextTable_ = *table + 1;
    if (nextTable_ == kPowerLogTableCount) storePending();
}

bool PowerLogStore::flush(std::chrono::milliseconds budget) {
    // Asked again and again: the thread sanitizer takes the unlocking of a timed mutex for a mistake.
    constexpr auto kPause = std::chrono::milliseconds(1);
    const auto end = std::chrono::steady_clock::now() + budget;
    std::unique_lock lock(mutex_, std::try_to_lock);
    while (!lock && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(kPause);
        lock.try_lock();
    }
    return lock && storePending();
}

void PowerLogStore::refuse(std::int32_t category, std::string_view name) {
    refusedEvents_.add(1);
    if (saidRefused_) return;
    saidRefused_ = true;
    log_.standard("The power log refused an event that is no activation's or out of order: %d %@", category, name);
}

bool PowerLogStore::storePending() {
    if (nextTable_ == 0) return true;
    const std::uint64_t events = pendingEvents_;
    const PowerLogActivation activation = std::move(pending_);
    pending_ = {};
    pendingEvents_ = 0;
    nextTable_ = 0;
    if (retry_.count() != 0 && options_.now() < retryAt_) {
        droppedEvents_.add(events);
        return false;
    }
    const bool stored = noteOutcome(database_.write(activation, options_.wallNow()));
    if (stored) {
        storedActivations_.add(1);
    } else {
        droppedEvents_.add(events);
    }
    return stored;
}

bool PowerLogStore::noteOutcome(const PowerLogDatabase::Failure& failure) {
    const PowerLogDatabase::Counts& counts = database_.counts();
    if (movedAside_ != counts.movedAside)
        log_.standard("A power log that is damaged or of a later version was moved aside.");
    refusedValues_ = counts.refusedValues;
    agedActivations_ = counts.agedActivations;
    displacedActivations_ = counts.displacedActivations;
    movedAside_ = counts.movedAside;
    const bool failedBefore = retry_.count() != 0;
    if (!failure) {
        retry_ = std::chrono::milliseconds{0};
        if (failedBefore) log_.standard("The power log is written again.");
        return true;
    }
    failedWrites_.add(1);
    retry_ = failedBefore ? std::min(retry_ * 2, options_.lastRetry) : options_.firstRetry;
    retryAt_ = options_.now() + retry_;
    if (!failedBefore) log_.standard("The power log could not be written, and activations are dropped: %@", *failure);
    return false;
}

JsonObject PowerLogStore::selfCounters() const {
    return {{"events", events_.load()},
            {"refusedEvents", refusedEvents_.load()},
            {"refusedValues", refusedValues_.load()},
            {"storedActivations", storedActivations_.load()},
            {"droppedEvents", droppedEvents_.load()},
            {"failedWrites", failedWrites_.load()},
            {"agedActivations", agedActivations_.load()},
            {"displacedActivations", displacedActivations_.load()},
            {"databasesMovedAside", movedAside_.load()},
            {"checkpoints", database_.checkpoints().done()},
            {"failedCheckpoints", database_.checkpoints().failed()}};
}

}  // namespace quorvix::linuxos
