#pragma once

#include <atomic>

namespace quorvix {

// A value that two queues touch without a lock on purpose: no tearing and no data race, but no order either. Only for
// those; everything else belongs to one queue.
template <class T>
class Relaxed {
public:
    constexpr Relaxed(T value = {}) : value_(value) {}
    Relaxed(const Relaxed& other) : value_(other.load()) {}
    Relaxed& operator=(const Relaxed& other) {
        store(other.load());
        return *this;
    }
    Relaxed& operator=(T value) {
        store(value);
        return *this;
    }
    operator T() const { return load(); }
    T load() const { return value_.load(std::memory_order_relaxed); }
    void store(T value) { value_.store(value, std::memory_order_relaxed); }
    // The new value.
    T add(T amount) requires std::is_integral_v<T> {
        return static_cast<T>(value_.fetch_add(amount, std::memory_order_relaxed) + amount);
    }

private:
    std::atomic<T> value_;
};

}  // namespace quorvix
