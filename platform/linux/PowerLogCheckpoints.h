#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

#include "platform/Relaxed.h"

namespace quorvix::linuxos {

// Carries the power log's journal over into its file, on a thread of its own, which the first request begins: that
// waits for the disk two times and more, and storing an activation must not. Through a connection of its own, opened
// for each time, which keeps neither the writer nor any reader waiting. What fails is counted and left to the next
// request; the writer bounds the journal.
class PowerLogCheckpoints {
public:
    explicit PowerLogCheckpoints(std::string path) : path_(std::move(path)) {}
    // Waits for what is under way.
    ~PowerLogCheckpoints();
    PowerLogCheckpoints(const PowerLogCheckpoints&) = delete;
    PowerLogCheckpoints& operator=(const PowerLogCheckpoints&) = delete;

    // Soon, and once for all requests until then.
    void request();
    // None is under way while this is held: for whoever makes, moves or replaces the file.
    [[nodiscard]] std::unique_lock<std::mutex> hold() { return std::unique_lock(file_); }

    std::uint64_t done() const { return done_; }
    std::uint64_t failed() const { return failed_; }

private:
    void run();
    void checkpoint();

    const std::string path_;
    std::mutex file_;  // held across disk accesses
    std::mutex mutex_;
    std::condition_variable wake_;
    // Guarded by mutex_.
    bool requested_ = false;
    bool ending_ = false;
    std::thread thread_;
    Relaxed<std::uint64_t> done_{0};
    Relaxed<std::uint64_t> failed_{0};
};

}  // namespace quorvix::linuxos
