#include "platform/linux/CounterDatabase.h"

#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <string_view>

#include "platform/linux/Sqlite.h"
#include "platform/linux/StoreMigration.h"

namespace quorvix::linuxos {

namespace {

constexpr std::int64_t kSchemaVersion = 1;
// What brings a file of an older version to this one; there is none yet.
constexpr std::array<std::string_view, kSchemaVersion - 1> kMigrations{};
constexpr std::int64_t kSecondsPerDay = 86400;
constexpr std::int64_t kUnusedDays = 30;

// The columns of a distribution's buckets, each preceded by `before` and followed by `after`.
std::string bucketColumns(const std::string& before, const std::string& after) {
    std::string columns;
    for (const double bound : kBucketBounds) {
        columns += before + "le_" + std::to_string(static_cast<std::int64_t>(bound)) + after;
    }
    return columns + before + "le_inf" + after;
}

std::string schemaSql() {
    return "BEGIN IMMEDIATE;"
           "CREATE TABLE scalar (key PRIMARY KEY NOT NULL, process, value INTEGER NOT NULL, changed INTEGER NOT NULL)"
           " WITHOUT ROWID;"
           "CREATE TABLE distribution (key PRIMARY KEY NOT NULL, process, count INTEGER NOT NULL, sum REAL NOT NULL,"
           " minimum REAL NOT NULL, maximum REAL NOT NULL" +
           bucketColumns(", ", " INTEGER NOT NULL") +
           ", changed INTEGER NOT NULL) WITHOUT ROWID;"
           "CREATE INDEX scalar_process ON scalar (process);"
           "CREATE INDEX distribution_process ON distribution (process);"
           "PRAGMA user_version = 1;"
           "COMMIT;";
}

std::string distributionSelect() {
    return "SELECT key, process, count, sum, minimum, maximum" + bucketColumns(", ", "") + " FROM distribution";
}

Distribution readDistribution(const SqliteStatement& row) {
    Distribution distribution;
    distribution.count = static_cast<std::uint64_t>(row.integer(2));
    distribution.sum = row.real(3);
    distribution.minimum = row.real(4);
    distribution.maximum = row.real(5);
    for (std::size_t index = 0; index < kBucketCount; ++index) {
        distribution.buckets[index] = static_cast<std::uint64_t>(row.integer(6 + static_cast<int>(index)));
    }
    return distribution;
}

}  // namespace

// Whether a key that is not stored yet may be: the bounds, asked of the database itself, within the transaction.
struct CounterDatabase::Admission {
    Admission(SqliteDatabase& database, CounterRefusals& refused)
        : keysOfProcess(database,
                        "SELECT (SELECT count(*) FROM scalar WHERE process = ?1) +"
                        " (SELECT count(*) FROM distribution WHERE process = ?1)"),
          chosenKeys(database.number(
              "SELECT (SELECT count(process) FROM scalar) + (SELECT count(process) FROM distribution)")),
          refusals(refused) {}

    bool admit(CounterKind kind, std::string_view key, std::string_view process) {
        if (isFixedCounter(kind, key)) return true;
        if (chosenKeys >= static_cast<std::int64_t>(kMaximumChosenKeys)) {
            refusals.add(CounterRefusal::tableFull);
            return false;
        }
        keysOfProcess.bindName(1, process);
        const std::int64_t keys = keysOfProcess.step() ? keysOfProcess.integer(0) : 0;
        keysOfProcess.reset();
        if (keys >= static_cast<std::int64_t>(kMaximumKeysOfProcess)) {
            refusals.add(CounterRefusal::processFull);
            return false;
        }
        ++chosenKeys;
        return true;
    }

    SqliteStatement keysOfProcess;
    std::int64_t chosenKeys;
    CounterRefusals& refusals;
};

CounterDatabase::CounterDatabase(const std::string& folder) : path_(folder + "/tallisk.db") {}

CounterDatabase::~CounterDatabase() = default;

CounterDatabase::Failure CounterDatabase::write(const CounterBatch& batch, WallTime now, CounterRefusals& refusals) {
    const std::int64_t seconds = std::chrono::floor<std::chrono::seconds>(now.time_since_epoch()).count();
    CounterRefusals refused;
    const Failure failure = attempt([&] {
        refused = {};
        store(batch, seconds, refused);
    });
    if (!failure) refusals.merge(refused);
    return failure;
}

CounterDatabase::Failure CounterDatabase::readScalars(const ScalarVisitor& visitor) {
    return attempt([&] {
        SqliteStatement rows(*database_, "SELECT key, value FROM scalar ORDER BY key");
        while (rows.step()) visitor(rows.bytes(0), rows.integer(1));
    });
}

CounterDatabase::Failure CounterDatabase::readDistributions(const DistributionVisitor& visitor) {
    return attempt([&] {
        SqliteStatement rows(*database_, distributionSelect() + " ORDER BY key");
        while (rows.step()) visitor(rows.bytes(0), rows.bytes(1), readDistribution(rows));
    });
}

// Runs the work once more when the file seems damaged, and on a new one when it still does.
CounterDatabase::Failure CounterDatabase::attempt(const std::function<void()>& work) {
    for (int number = 1;; ++number) {
        try {
            openIfNeeded();
            work();
            return std::nullopt;
        } catch (const SqliteError& error) {
            // Closing takes an open transaction back.
            database_.reset();
            const SqliteAnswer answer = answerTo(error, number, path_);
            if (answer == SqliteAnswer::giveUp) return error.what();
            if (answer == SqliteAnswer::moveAside) moveAside(".damaged");
        } catch (const std::exception& error) {
            database_.reset();
            return error.what();
        }
    }
}

void CounterDatabase::openIfNeeded() {
    if (database_ && database_->fileHasMoved()) database_.reset();
    if (database_) return;
    connect();
    if (database_->number("PRAGMA user_version") > kSchemaVersion) {
        database_.reset();
        moveAside(".newer");
        connect();
    }
    prepareSchema();
    cleanedOnDay_ = -1;
}

void CounterDatabase::connect() {
    makeDatabaseFile(path_);
    database_ = std::make_unique<SqliteDatabase>(path_);
    // Write-ahead: a killed process loses nothing that was committed, readers are never in the way. Synchronised at
    // checkpoints only; a power cut may cost the last seconds, never the file.
    database_->execute(
        "PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL; PRAGMA cache_size = -128;"
        "PRAGMA journal_size_limit = 1048576; PRAGMA temp_store = MEMORY;");
}

void CounterDatabase::prepareSchema() {
    database_->requireWhole();
    if (database_->number("PRAGMA user_version") == 0) database_->execute(schemaSql().c_str());
    migrateStore(*database_, kMigrations);
}

// One file of a kind is kept: the last. The journals go along: SQLite finds by their names what they still hold.
void CounterDatabase::moveAside(const char* suffix) {
    const std::string target = path_ + suffix;
    std::rename(path_.c_str(), target.c_str());
    for (const char* journal : {"-wal", "-shm"}) {
        // That of an earlier one would be taken for this one's; there may be none of either.
        unlink((target + journal).c_str());
        std::rename((path_ + journal).c_str(), (target + journal).c_str());
    }
    ++movedAside_;
}

void CounterDatabase::store(const CounterBatch& batch, std::int64_t seconds, CounterRefusals& refusals) {
    database_->execute("BEGIN IMMEDIATE");
    dropUnused(seconds);
    Admission admission(*database_, refusals);
    storeScalars(batch, seconds, admission);
    storeDistributions(batch, seconds, admission);
    database_->execute("COMMIT");
    cleanedOnDay_ = seconds / kSecondsPerDay;
}

void CounterDatabase::storeScalars(const CounterBatch& batch, std::int64_t seconds, Admission& admission) {
    SqliteStatement find(*database_, "SELECT value FROM scalar WHERE key = ?1");
    SqliteStatement replace(*database_, "REPLACE INTO scalar (key, process, value, changed) VALUES (?1, ?2, ?3, ?4)");
    for (const auto& [key, change] : batch.scalars()) {
        find.bindName(1, key);
        const bool stored = find.step();
        const std::int64_t before = stored && !change.replaces ? find.integer(0) : 0;
        find.reset();
        if (!stored && !admission.admit(CounterKind::scalar, key, processOfScalar(key))) continue;
        if (isFixedCounter(CounterKind::scalar, key)) {
            replace.bindNull(2);
        } else {
            replace.bindName(2, processOfScalar(key));
        }
        replace.bindName(1, key).bind(3, wrappingSum(before, change.value)).bind(4, seconds).run();
    }
}

void CounterDatabase::storeDistributions(const CounterBatch& batch, std::int64_t seconds, Admission& admission) {
    SqliteStatement find(*database_, distributionSelect() + " WHERE key = ?1");
    std::string parameters;
    for (std::size_t index = 0; index < kBucketCount + 7; ++index) parameters += index ? ", ?" : "?";
    SqliteStatement replace(*database_, "REPLACE INTO distribution (key, process, count, sum, minimum, maximum" +
                                            bucketColumns(", ", "") + ", changed) VALUES (" + parameters + ")");
    for (const auto& [key, samples] : batch.distributions()) {
        find.bindName(1, key);
        const bool stored = find.step();
        Distribution total = stored ? readDistribution(find) : Distribution{};
        find.reset();
        if (!stored && !admission.admit(CounterKind::distribution, key, samples.process)) continue;
        total.merge(samples.distribution);
        replace.bindName(1, key).bindName(2, samples.process).bind(3, static_cast<std::int64_t>(total.count));
        replace.bind(4, total.sum).bind(5, total.minimum).bind(6, total.maximum);
        int parameter = 7;
        for (const std::uint64_t bucket : total.buckets) replace.bind(parameter++, static_cast<std::int64_t>(bucket));
        replace.bind(parameter, seconds).run();
    }
}

// Once a day is enough for what is counted in months. After a step of the wall clock it runs again, which is harmless.
void CounterDatabase::dropUnused(std::int64_t seconds) {
    if (cleanedOnDay_ == seconds / kSecondsPerDay) return;
    for (const char* table : {"scalar", "distribution"}) {
        SqliteStatement drop(*database_, std::string("DELETE FROM ") + table + " WHERE changed < ?1");
        drop.bind(1, seconds - kUnusedDays * kSecondsPerDay).run();
    }
}

}  // namespace quorvix::linuxos
