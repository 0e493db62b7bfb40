#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>

#include "platform/Relaxed.h"

namespace quorvix {

// Memory of open snapshots, bounded for the whole process: clients decide how many activations are open. Past the
// bound an allocation fails, which every capture copes with. Any thread.
class SnapshotMemory {
public:
    static constexpr std::size_t kMaximumBytes = std::size_t{64} * 1024 * 1024;

    // False: it would pass the bound, or a test said so.
    bool reserve(std::size_t bytes) noexcept;
    void release(std::size_t bytes) noexcept { used_.fetch_sub(bytes, std::memory_order_relaxed); }

    std::size_t usedBytes() const noexcept { return used_.load(std::memory_order_relaxed); }
    std::uint64_t refusals() const noexcept { return refusals_; }
    void setMaximumBytes(std::size_t bytes) noexcept { maximum_ = bytes; }
    // The n-th next reservation fails (1 = the next); for tests of each failure.
    void failNth(std::uint64_t n) noexcept { failAt_ = n; }

private:
    std::atomic<std::size_t> used_{0};
    Relaxed<std::size_t> maximum_{kMaximumBytes};
    Relaxed<std::uint64_t> refusals_{0};
    Relaxed<std::uint64_t> failAt_{0};
};

// The process-wide state of the performance statistics. What the tracker's two queues touch without a lock is relaxed
// on purpose: concurrent first computations of nsPerTick give the same value.
struct PerfState {
    // Ticks to nanoseconds; negative until its first user fetches the clock's ratio.
    Relaxed<double> nsPerTick{-1.0};
    // Highest pid whose name was sent to the power log; the tracker resets it to -1.
    Relaxed<std::int32_t> largestTrackedPid{-1};
    // "OtherProcesses" was entered into the power log's names; never reset.
    bool otherProcessesSent = false;
    SnapshotMemory memory;
};

PerfState& perfState();
// Replaces the whole state. Precondition: no snapshot lives.
void resetPerfState();

// nsPerTick, fetched where it is still negative.
double nsPerTick();
// Whole milliseconds of that many ticks, truncated; computed in doubles in this order, so that 33 ms of ticks may show
// as 32.
std::uint64_t msFromTicks(std::uint64_t ticks);

// A zeroed array paid for from the snapshot memory; null when there is none left.
template <class T>
class SnapshotArray {
public:
    SnapshotArray() = default;
    static SnapshotArray allocate(std::size_t count) {
        SnapshotArray array;
        if (!perfState().memory.reserve(count * sizeof(T))) return array;
        array.data_.reset(new (std::nothrow) T[count]());
        if (array.data_) {
            array.count_ = count;
        } else {
            perfState().memory.release(count * sizeof(T));
        }
        return array;
    }
    ~SnapshotArray() { reset(); }
    SnapshotArray(SnapshotArray&& other) noexcept : data_(std::move(other.data_)), count_(other.count_) {
        other.count_ = 0;
    }
    SnapshotArray& operator=(SnapshotArray&& other) noexcept {
        if (this == &other) return *this;
        reset();
        data_ = std::move(other.data_);
        count_ = other.count_;
        other.count_ = 0;
        return *this;
    }

    explicit operator bool() const { return data_ != nullptr; }
    T* get() const { return data_.get(); }
    T& operator[](std::size_t index) const { return data_[index]; }
    void reset() {
        if (count_ != 0) perfState().memory.release(count_ * sizeof(T));
        data_.reset();
        count_ = 0;
    }

private:
    std::unique_ptr<T[]> data_;
    std::size_t count_ = 0;
};

}  // namespace quorvix
