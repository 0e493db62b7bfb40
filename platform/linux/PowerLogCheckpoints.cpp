#include "platform/linux/PowerLogCheckpoints.h"

#include <system_error>

#include "platform/linux/Sqlite.h"

namespace quorvix::linuxos {

PowerLogCheckpoints::~PowerLogCheckpoints() {
    {
        const std::lock_guard lock(mutex_);
        ending_ = true;
    }
    wake_.notify_one();
    if (thread_.joinable()) thread_.join();
}

void PowerLogCheckpoints::request() {
    const std::lock_guard lock(mutex_);
    requested_ = true;
    if (thread_.joinable()) return wake_.notify_one();
    try {
        thread_ = std::thread([this] { run(); });
    } catch (const std::system_error&) {
        // The next request tries again.
        failed_.add(1);
    }
}

void PowerLogCheckpoints::run() {
    std::unique_lock lock(mutex_);
    for (;;) {
        wake_.wait(lock, [this] { return requested_ || ending_; });
        // A journal that is left is carried over when the writer closes it.
        if (ending_) return;
        requested_ = false;
        lock.unlock();
        checkpoint();
        lock.lock();
    }
}

void PowerLogCheckpoints::checkpoint() {
    const auto held = hold();
    try {
        SqliteDatabase database(path_);
        // Passive: takes what it can get without a lock that another one would wait for.
        database.execute("PRAGMA wal_checkpoint(PASSIVE)");
        done_.add(1);
    } catch (const std::exception&) {
        failed_.add(1);
    }
}

}  // namespace quorvix::linuxos
