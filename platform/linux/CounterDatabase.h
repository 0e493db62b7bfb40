#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Time.h"
#include "platform/linux/CounterBatch.h"
#include "platform/linux/CounterKeys.h"

namespace quorvix::linuxos {

class SqliteDatabase;

// The counters on disk: <folder>/tallisk.db, mode 0600, described in docs/counters.md. Opened at the first use and
// again after every failure. A batch is one transaction: all of it is stored or nothing, also when the process is
// killed within. A damaged file, or one of a later version, is moved aside and a new one begun. Used on the counter
// store's thread only; no exception leaves it.
class CounterDatabase {
public:
    // An error's text; nothing: it worked.
    using Failure = std::optional<std::string>;
    using ScalarVisitor = std::function<void(std::string_view key, std::int64_t value)>;
    using DistributionVisitor =
        std::function<void(std::string_view key, std::string_view process, const Distribution& distribution)>;

    explicit CounterDatabase(const std::string& folder);
    ~CounterDatabase();

    // Adds the changes to what is stored and drops keys unused for 30 days. Keys too many are counted in `refusals`,
    // which is not failing. Failed: nothing was stored, nothing counted.
    [[nodiscard]] Failure write(const CounterBatch& batch, WallTime now, CounterRefusals& refusals);
    // In the order of their keys. A visitor's view of a key ends with the visit.
    [[nodiscard]] Failure readScalars(const ScalarVisitor& visitor);
    [[nodiscard]] Failure readDistributions(const DistributionVisitor& visitor);

    // Files that were moved aside.
    std::uint64_t movedAside() const { return movedAside_; }

private:
    struct Admission;

    Failure attempt(const std::function<void()>& work);
    void openIfNeeded();
    void connect();
    void prepareSchema();
    void moveAside(const char* suffix);
    void store(const CounterBatch& batch, std::int64_t seconds, CounterRefusals& refusals);
    void storeScalars(const CounterBatch& batch, std::int64_t seconds, Admission& admission);
    void storeDistributions(const CounterBatch& batch, std::int64_t seconds, Admission& admission);
    void dropUnused(std::int64_t seconds);

    std::string path_;
    std::unique_ptr<SqliteDatabase> database_;
    // The day (since 1970) on which unused keys were last dropped.
    std::int64_t cleanedOnDay_ = -1;
    std::uint64_t movedAside_ = 0;
};

}  // namespace quorvix::linuxos
