#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

#include "platform/Json.h"
#include "platform/PowerLog.h"
#include "platform/Relaxed.h"
#include "platform/SystemLog.h"
#include "platform/linux/PowerLogDatabase.h"

namespace quorvix::linuxos {

struct PowerLogStoreOptions {
    std::string folder = "/var/lib/quorvix";
    PowerLogLimits limits = {};
    // Nothing is tried for this long after a failed write; each further one waits twice as long, up to the last.
    std::chrono::milliseconds firstRetry{10000};
    std::chrono::milliseconds lastRetry{600000};
    std::function<WallTime()> wallNow = [] { return std::chrono::system_clock::now(); };
    std::function<std::chrono::steady_clock::time_point()> now = [] { return std::chrono::steady_clock::now(); };
};

// The power/energy event log ("Wattrel"): gathers the four events of an activation and stores them as one transaction,
// at the last of them or at the first of the next activation (docs/power-log.md).
// sendEvent() is called on one queue and waits for the disk there. While the store can't be written, activations are
// dropped and counted; that is said once, and again once it works. Events that are not an activation's, or out of
// order, are refused and counted.
class PowerLogStore final : public PowerLog {
public:
    // `log` outlives the store.
    explicit PowerLogStore(SystemLog& log, PowerLogStoreOptions options = {});
    PowerLogStore(const PowerLogStore&) = delete;
    PowerLogStore& operator=(const PowerLogStore&) = delete;

    void sendEvent(std::int32_t category, std::string_view name, const PowerLogDictionary& dictionary) override;

    // Stores what was gathered, from any thread. False: not all is stored, or the disk held another write up too long.
    bool flush(std::chrono::milliseconds budget);
    // From any thread; never waits for the disk.
    JsonObject selfCounters() const;

private:
    void refuse(std::int32_t category, std::string_view name);
    bool storePending();
    bool noteOutcome(const PowerLogDatabase::Failure& failure);

    const PowerLogStoreOptions options_;
    const LogHandle log_;

    std::mutex mutex_;  // guards what follows, and is held across disk accesses
    PowerLogDatabase database_;
    PowerLogActivation pending_;
    std::uint64_t pendingEvents_ = 0;
    std::size_t nextTable_ = 0;  // 0: nothing is pending
    std::chrono::milliseconds retry_{0};
    std::chrono::steady_clock::time_point retryAt_{};
    bool saidRefused_ = false;

    Relaxed<std::uint64_t> events_{0};
    Relaxed<std::uint64_t> refusedEvents_{0};
    Relaxed<std::uint64_t> storedActivations_{0};
    Relaxed<std::uint64_t> droppedEvents_{0};
    Relaxed<std::uint64_t> failedWrites_{0};
    Relaxed<std::uint64_t> refusedValues_{0};
    Relaxed<std::uint64_t> agedActivations_{0};
    Relaxed<std::uint64_t> displacedActivations_{0};
    Relaxed<std::uint64_t> movedAside_{0};
};

}  // namespace quorvix::linuxos
