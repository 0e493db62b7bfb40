#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/PowerLog.h"
#include "platform/Time.h"
#include "platform/linux/PowerLogCheckpoints.h"
#include "platform/linux/PowerLogSchema.h"

namespace quorvix::linuxos {

class SqliteDatabase;
class SqliteStatement;

struct PowerLogLimits {
    std::chrono::seconds age{std::chrono::hours{24} * 90};
    // Of the database file; its journal has a bound of its own.
    std::int64_t bytes = std::int64_t{64} * 1024 * 1024;
    std::int64_t journalBytes = std::int64_t{16} * 1024 * 1024;
    // How long one write waits for a lock of another.
    std::chrono::milliseconds busyTimeout{100};
    // From so many on, the journal's pages are carried over into the file, beside the writer.
    std::int64_t checkpointPages = 1000;
};

// The events of one activation by table; the first is always there.
struct PowerLogActivation {
    std::array<std::optional<PowerLogDictionary>, kPowerLogTableCount> events;
};

// The power log on disk: <folder>/wattrel.db, mode 0600, described in docs/power-log.md. Opened at the first write and
// again after every failure. An activation is one transaction: all of its rows are stored or none, also when the
// process is killed within. The oldest activations make room for new ones. A damaged file, or one of another version,
// is moved aside, never deleted, and a new one begun. One thread at a time, but for one of its own that empties the
// journal; no exception leaves it.
class PowerLogDatabase {
public:
    // An error's text; nothing: it worked.
    using Failure = std::optional<std::string>;
    struct Counts {
        // What no column takes: an unknown key, a value of another type.
        std::uint64_t refusedValues = 0;
        std::uint64_t agedActivations = 0;
        std::uint64_t displacedActivations = 0;
        std::uint64_t movedAside = 0;
    };
    // Files moved aside that are kept; with so many nothing is stored until somebody takes them away.
    static constexpr int kMaximumMovedAside = 8;

    PowerLogDatabase(const std::string& folder, PowerLogLimits limits);
    ~PowerLogDatabase();

    [[nodiscard]] Failure write(const PowerLogActivation& activation, WallTime now);
    const Counts& counts() const { return counts_; }
    // Its counters may be read from any thread.
    const PowerLogCheckpoints& checkpoints() const { return checkpoints_; }

private:
    struct Inserts;

    void openIfNeeded();
    void connect();
    void prepareInserts();
    void moveAside(const char* suffix);
    void checkJournal();
    void store(const PowerLogActivation& activation, std::int64_t seconds, Counts& counts);
    void makeRoom(std::int64_t seconds, Counts& counts);
    // Whether the clock that reads so many seconds since 1970 has stood there for a while.
    bool clockIsBelieved(std::int64_t seconds);
    std::int64_t usedBytes();
    void dropNames();

    std::string path_;
    PowerLogLimits limits_;
    std::unique_ptr<SqliteDatabase> database_;
    std::unique_ptr<Inserts> inserts_;
    // The hour (since 1970) in which the age was last looked at.
    std::int64_t agedInHour_ = -1;
    Counts counts_;
    // Last: it ends before the connection, whose closing empties the journal.
    PowerLogCheckpoints checkpoints_;
};

}  // namespace quorvix::linuxos
