#include "platform/linux/Sqlite.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "platform/Result.h"
#include "platform/linux/Descriptor.h"
#include "platform/linux/Utf8.h"

namespace quorvix::linuxos {

namespace {

[[noreturn]] void fail(sqlite3* database, int code) {
    throw SqliteError(code & 0xff, database ? sqlite3_errmsg(database) : sqlite3_errstr(code));
}

bool canBeRead(const std::string& path) {
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    // There may be no journal.
    if (!file) return errno == ENOENT;
    std::array<char, 65536> buffer;
    ssize_t count = 0;
    do {
        count = read(file.get(), buffer.data(), buffer.size());
    } while (count > 0 || (count < 0 && errno == EINTR));
    return count == 0;
}

}  // namespace

bool SqliteError::damaged() const { return code_ == SQLITE_CORRUPT || code_ == SQLITE_NOTADB; }

SqliteAnswer answerTo(const SqliteError& error, int number, const std::string& path) {
    if (!error.damaged() || number > 2) return SqliteAnswer::giveUp;
    if (number == 1) return SqliteAnswer::tryAgain;
    return canBeRead(path) && canBeRead(path + "-wal") ? SqliteAnswer::moveAside : SqliteAnswer::giveUp;
}

void makeDatabaseFile(const std::string& path) {
    constexpr int kFlags = O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
    const Descriptor file(open(path.c_str(), kFlags, 0600));
    struct stat status {};
    if (!file || fstat(file.get(), &status) != 0 || fchmod(file.get(), 0600) != 0) {
        throw std::runtime_error(ErrorCode{errno}.text());
    }
    if (!S_ISREG(status.st_mode)) throw std::runtime_error(ErrorCode{EEXIST}.text());
}

SqliteDatabase::SqliteDatabase(const std::string& path, std::chrono::milliseconds busyTimeout, SqliteAccess access) {
    const int mode = access == SqliteAccess::readOnly ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE;
    const int code = sqlite3_open_v2(path.c_str(), &handle_, mode | SQLITE_OPEN_NOMUTEX, nullptr);
    if (code != SQLITE_OK) {
        const std::string text = handle_ ? sqlite3_errmsg(handle_) : sqlite3_errstr(code);
        sqlite3_close(handle_);
        throw SqliteError(code & 0xff, text);
    }
    sqlite3_busy_timeout(handle_, static_cast<int>(busyTimeout.count()));
    // The last connection's close would carry the journal over and remove it. Where the index of the journal could not
    // be made, as on a full disk, nothing is carried over and it is removed all the same, with all that was committed.
    sqlite3_db_config(handle_, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
}

SqliteDatabase::~SqliteDatabase() { sqlite3_close(handle_); }

void SqliteDatabase::execute(const char* sql) {
    const int code = sqlite3_exec(handle_, sql, nullptr, nullptr, nullptr);
    if (code != SQLITE_OK) fail(handle_, code);
}

std::int64_t SqliteDatabase::number(const char* sql) {
    SqliteStatement statement(*this, sql);
    return statement.step() ? statement.integer(0) : 0;
}

std::string SqliteDatabase::text(const char* sql) {
    SqliteStatement statement(*this, sql);
    return statement.step() ? std::string(statement.bytes(0)) : std::string();
}

void SqliteDatabase::requireWhole() {
    const std::string found = text("PRAGMA quick_check(1)");
    if (found != "ok") throw SqliteError(SQLITE_CORRUPT, found);
}

bool SqliteDatabase::fileHasMoved() {
    int moved = 0;
    const int code = sqlite3_file_control(handle_, "main", SQLITE_FCNTL_HAS_MOVED, &moved);
    return code == SQLITE_OK && moved != 0;
}

void SqliteDatabase::leaveJournalToOthers() {
    const auto note = [](void* self, sqlite3*, const char*, int pages) {
        static_cast<SqliteDatabase*>(self)->journalPages_ = pages;
        return SQLITE_OK;
    };
    // In the place of the hook that does it.
    sqlite3_wal_hook(handle_, note, this);
}

SqliteStatement::SqliteStatement(SqliteDatabase& database, std::string_view sql) : database_(database.handle()) {
    check(sqlite3_prepare_v2(database_, sql.data(), static_cast<int>(sql.size()), &statement_, nullptr));
}

SqliteStatement::~SqliteStatement() { sqlite3_finalize(statement_); }

SqliteStatement& SqliteStatement::bind(int parameter, std::int64_t value) {
    check(sqlite3_bind_int64(statement_, parameter, value));
    return *this;
}

SqliteStatement& SqliteStatement::bind(int parameter, double value) {
    check(sqlite3_bind_double(statement_, parameter, value));
    return *this;
}

SqliteStatement& SqliteStatement::bindName(int parameter, std::string_view bytes) {
    const int length = static_cast<int>(bytes.size());
    const bool isText = bytes.find('\0') == std::string_view::npos && isUtf8(bytes);
    // An empty view may hold no address, and that would bind NULL.
    const char* data = bytes.empty() ? "" : bytes.data();
    check(isText ? sqlite3_bind_text(statement_, parameter, data, length, SQLITE_STATIC)
                 : sqlite3_bind_blob(statement_, parameter, data, length, SQLITE_STATIC));
    return *this;
}

SqliteStatement& SqliteStatement::bindNull(int parameter) {
    check(sqlite3_bind_null(statement_, parameter));
    return *this;
}

bool SqliteStatement::step() {
    const int code = sqlite3_step(statement_);
    if (code == SQLITE_ROW) return true;
    if (code != SQLITE_DONE) fail(database_, code);
    return false;
}

// Repeats the error of the step before, which was thrown there.
void SqliteStatement::reset() { sqlite3_reset(statement_); }

void SqliteStatement::run() {
    while (step()) {
    }
    reset();
}

std::int64_t SqliteStatement::integer(int column) const { return sqlite3_column_int64(statement_, column); }

std::variant<std::monostate, std::int64_t, double, std::string> SqliteStatement::value(int column) const {
    switch (sqlite3_column_type(statement_, column)) {
        case SQLITE_NULL: return std::monostate();
        case SQLITE_INTEGER: return integer(column);
        case SQLITE_FLOAT: return real(column);
        default: return std::string(bytes(column));
    }
}

int SqliteStatement::columns() const { return sqlite3_column_count(statement_); }

std::string SqliteStatement::name(int column) const { return sqlite3_column_name(statement_, column); }

double SqliteStatement::real(int column) const { return sqlite3_column_double(statement_, column); }

std::string_view SqliteStatement::bytes(int column) const {
    // Pointer first, then its length.
    const auto* data = static_cast<const char*>(sqlite3_column_blob(statement_, column));
    const int length = sqlite3_column_bytes(statement_, column);
    return data ? std::string_view(data, static_cast<std::size_t>(length)) : std::string_view();
}

void SqliteStatement::check(int code) const {
    if (code != SQLITE_OK) fail(database_, code);
}

}  // namespace quorvix::linuxos
