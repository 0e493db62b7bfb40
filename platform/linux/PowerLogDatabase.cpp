#include "platform/linux/PowerLogDatabase.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "platform/Result.h"
#include "platform/linux/Sqlite.h"
#include "platform/linux/StoreMigration.h"

namespace quorvix::linuxos {

namespace {

constexpr std::int64_t kSecondsPerHour = 3600;
// Room is made in steps of this part of the bound, so that it is not made for every activation.
constexpr std::int64_t kPartsOfRoom = 16;
// Nothing is dropped for its age unless something was stored between these two ages: a clock that jumped ahead has to
// stay there for a day before anything is lost to it.
constexpr std::int64_t kClockBelievedAfter = 24 * kSecondsPerHour;
constexpr std::int64_t kClockBelievedFor = 7 * kClockBelievedAfter;

// False: a value that the column does not take.
bool bindValue(SqliteStatement& statement, int parameter, PowerLogColumnKind kind, const PowerLogValue& value) {
    const PowerLogValue::Content& content = value.content();
    switch (kind) {
        case PowerLogColumnKind::real:
            if (const auto* number = std::get_if<double>(&content)) return statement.bind(parameter, *number), true;
            return false;
        case PowerLogColumnKind::text:
            if (const auto* text = std::get_if<std::string>(&content)) {
                return statement.bindName(parameter, *text), true;
            }
            return false;
        case PowerLogColumnKind::signedInteger:
            if (const auto* number = std::get_if<std::int64_t>(&content)) {
                return statement.bind(parameter, *number), true;
            }
            return false;
        case PowerLogColumnKind::unsignedInteger:
            if (const auto* number = std::get_if<std::uint64_t>(&content)) {
                return statement.bind(parameter, static_cast<std::int64_t>(*number)), true;
            }
            if (const auto* small = std::get_if<std::uint8_t>(&content)) {
                return statement.bind(parameter, std::int64_t{*small}), true;
            }
            return false;
    }
    return false;
}

std::optional<std::int64_t> entryKey(const PowerLogKey& key) {
    if (const auto* number = std::get_if<std::int64_t>(&key)) return *number;
    if (const auto* number = std::get_if<std::uint64_t>(&key)) return static_cast<std::int64_t>(*number);
    return std::nullopt;
}

}  // namespace

struct PowerLogDatabase::Inserts {
    explicit Inserts(SqliteDatabase& database)
        : statements{SqliteStatement(database, powerLogInsertSql(0)), SqliteStatement(database, powerLogInsertSql(1)),
                     SqliteStatement(database, powerLogInsertSql(2)), SqliteStatement(database, powerLogInsertSql(3))} {
    }

    // Binds the row's values from `first` on; a column without a value is NULL. Runs the statement.
    void insertRow(std::size_t table, int first, const PowerLogDictionary& row, Counts& counts) {
        SqliteStatement& statement = statements[table];
        const auto columns = powerLogTables()[table].columns;
        for (std::size_t index = 0; index < columns.size(); ++index) {
            statement.bindNull(first + static_cast<int>(index));
        }
        for (const auto& [key, value] : row.entries()) {
            const auto* name = std::get_if<std::string>(&key);
            const auto column = std::ranges::find_if(columns, [&](const auto& c) { return name && c.name == *name; });
            if (column == columns.end() ||
                !bindValue(statement, first + static_cast<int>(column - columns.begin()), column->kind, value)) {
                ++counts.refusedValues;
            }
        }
        statement.run();
    }

    void insertEntries(std::size_t table, std::int64_t activation, const PowerLogDictionary& entries, Counts& counts) {
        for (const auto& [key, value] : entries.entries()) {
            const std::optional<std::int64_t> number = entryKey(key);
            const auto* row = std::get_if<PowerLogDictionary>(&value.content());
            if (!number || !row) {
                ++counts.refusedValues;
                continue;
            }
            statements[table].bind(1, activation).bind(2, *number);
            insertRow(table, 3, *row, counts);
        }
    }

    std::array<SqliteStatement, kPowerLogTableCount> statements;
};

PowerLogDatabase::PowerLogDatabase(const std::string& folder, PowerLogLimits limits)
    : path_(folder + "/wattrel.db"), limits_(limits), checkpoints_(path_) {}

PowerLogDatabase::~PowerLogDatabase() = default;

// Once more when the file seems damaged, and on a new one when it still does.
PowerLogDatabase::Failure PowerLogDatabase::write(const PowerLogActivation& activation, WallTime now) {
    const std::int64_t seconds = std::chrono::floor<std::chrono::seconds>(now.time_since_epoch()).count();
    for (int number = 1;; ++number) {
        std::string failure;
        auto answer = SqliteAnswer::giveUp;
        try {
            openIfNeeded();
            Counts counts = counts_;
            store(activation, seconds, counts);
            counts_ = counts;
            return std::nullopt;
        } catch (const SqliteError& error) {
            failure = error.what();
            answer = answerTo(error, number, path_);
        } catch (const std::exception& error) {
            failure = error.what();
        }
        // Closing takes an open transaction back.
        inserts_.reset();
        database_.reset();
        if (answer == SqliteAnswer::giveUp) return failure;
        if (answer == SqliteAnswer::tryAgain) continue;
        try {
            const auto held = checkpoints_.hold();
            moveAside(".damaged");
        } catch (const std::exception& error) {
            return error.what();
        }
    }
}

void PowerLogDatabase::openIfNeeded() {
    if (database_ && !database_->fileHasMoved()) return;
    const auto held = checkpoints_.hold();
    inserts_.reset();
    database_.reset();
    connect();
    const std::int64_t version = database_->number("PRAGMA user_version");
    if (version < 0 || version > kPowerLogSchemaVersion) {
        database_.reset();
        moveAside(".newer");
        connect();
    }
    database_->requireWhole();
    if (database_->number("PRAGMA user_version") == 0) database_->execute(powerLogSchemaSql().c_str());
    migrateStore(*database_, powerLogMigrations());
    prepareInserts();
    agedInHour_ = -1;
}

// A table or column that is missing from a file of our version never comes back: the file is damaged.
void PowerLogDatabase::prepareInserts() {
    try {
        inserts_ = std::make_unique<Inserts>(*database_);
    } catch (const SqliteError& error) {
        if (error.code() == SQLITE_ERROR) throw SqliteError(SQLITE_CORRUPT, error.what());
        throw;
    }
}

void PowerLogDatabase::connect() {
    makeDatabaseFile(path_);
    database_ = std::make_unique<SqliteDatabase>(path_, limits_.busyTimeout);
    // Write-ahead: a killed process loses nothing that was committed, readers are never in the way. Synchronised at
    // checkpoints only; a power cut may cost the last activations, never the file.
    database_->execute(
        "PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL; PRAGMA cache_size = -256; PRAGMA foreign_keys = ON;"
        "PRAGMA journal_size_limit = 1048576; PRAGMA temp_store = MEMORY;");
    database_->leaveJournalToOthers();
    const std::int64_t pages = limits_.bytes / std::max<std::int64_t>(1, database_->number("PRAGMA page_size"));
    database_->execute(("PRAGMA max_page_count = " + std::to_string(pages)).c_str());
}

// The journals go along: SQLite finds by their names what they still hold.
void PowerLogDatabase::moveAside(const char* suffix) {
    for (int number = 1; number <= kMaximumMovedAside; ++number) {
        const std::string target = path_ + suffix + "-" + std::to_string(number);
        struct stat status {};
        if (lstat(target.c_str(), &status) == 0) continue;
        if (std::rename(path_.c_str(), target.c_str()) != 0) throw std::runtime_error(ErrorCode{errno}.text());
        for (const char* journal : {"-wal", "-shm"}) {
            // There may be none.
            std::rename((path_ + journal).c_str(), (target + journal).c_str());
        }
        ++counts_.movedAside;
        return;
    }
    throw std::runtime_error("too many damaged or newer databases were moved aside");
}

// A reader that never ends keeps the journal from being emptied; it must not fill the disk that way.
void PowerLogDatabase::checkJournal() {
    struct stat status {};
    if (stat((path_ + "-wal").c_str(), &status) != 0 || status.st_size <= limits_.journalBytes) return;
    // So much was stored that it could not be carried over beside: what is under way is waited for.
    const auto held = checkpoints_.hold();
    if (database_->number("PRAGMA wal_checkpoint(TRUNCATE)") != 0) {
        throw std::runtime_error("a reader keeps the journal from being emptied");
    }
}

void PowerLogDatabase::store(const PowerLogActivation& activation, std::int64_t seconds, Counts& counts) {
    checkJournal();
    database_->execute("BEGIN IMMEDIATE");
    makeRoom(seconds, counts);
    inserts_->statements[0].bind(1, seconds);
    inserts_->insertRow(0, 2, *activation.events[0], counts);
    const std::int64_t number = database_->number("SELECT last_insert_rowid()");
    for (std::size_t table = 1; table < kPowerLogTableCount; ++table) {
        if (activation.events[table]) inserts_->insertEntries(table, number, *activation.events[table], counts);
    }
    database_->execute("COMMIT");
    agedInHour_ = seconds / kSecondsPerHour;
    if (database_->journalPages() >= limits_.checkpointPages) checkpoints_.request();
}

bool PowerLogDatabase::clockIsBelieved(std::int64_t seconds) {
    SqliteStatement lately(*database_, "SELECT 1 FROM ActivationData WHERE StoredAt BETWEEN ?1 AND ?2 LIMIT 1");
    return lately.bind(1, seconds - kClockBelievedFor).bind(2, seconds - kClockBelievedAfter).step();
}

std::int64_t PowerLogDatabase::usedBytes() {
    return (database_->number("PRAGMA page_count") - database_->number("PRAGMA freelist_count")) *
           database_->number("PRAGMA page_size");
}

// Within the transaction: what is dropped comes back when the activation that needs the room can't be stored.
void PowerLogDatabase::makeRoom(std::int64_t seconds, Counts& counts) {
    std::uint64_t dropped = 0;
    if (agedInHour_ != seconds / kSecondsPerHour && clockIsBelieved(seconds)) {
        SqliteStatement drop(*database_, "DELETE FROM ActivationData WHERE StoredAt < ?1");
        drop.bind(1, seconds - limits_.age.count()).run();
        dropped = static_cast<std::uint64_t>(database_->number("SELECT changes()"));
        counts.agedActivations += dropped;
    }
    const std::int64_t part = limits_.bytes / kPartsOfRoom;
    if (usedBytes() > limits_.bytes - 2 * part) {
        for (bool more = true; more && usedBytes() > limits_.bytes - 3 * part;) {
            database_->execute(
                "DELETE FROM ActivationData WHERE Activation IN (SELECT Activation FROM ActivationData ORDER BY"
                " Activation LIMIT (SELECT 1 + count(*) / 32 FROM ActivationData))");
            const auto displaced = static_cast<std::uint64_t>(database_->number("SELECT changes()"));
            counts.displacedActivations += displaced;
            dropped += displaced;
            more = displaced != 0;
        }
    }
    if (dropped) dropNames();
}

// A name is sent once, and later activations refer to it: it goes with its activation only when nothing refers to it
// any more or a newer row has it too.
void PowerLogDatabase::dropNames() {
    database_->execute(
        "DELETE FROM ProcessData WHERE Activation NOT IN (SELECT Activation FROM ActivationData) AND"
        " (Activation, EntryKey) NOT IN"
        " (SELECT newest.Activation, newest.EntryKey"
        "  FROM (SELECT UniqueID, EntryKey, max(Activation) AS Activation FROM ProcessData GROUP BY UniqueID) AS newest"
        "  WHERE newest.UniqueID IN (SELECT UniqueID FROM CPUStatistics))");
}

}  // namespace quorvix::linuxos
