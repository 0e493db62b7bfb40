#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>

struct sqlite3;
struct sqlite3_stmt;

namespace quorvix::linuxos {

// A failed SQLite call. Thrown between a store's own files only; a store's public functions catch it.
class SqliteError : public std::runtime_error {
public:
    SqliteError(int code, const std::string& text) : std::runtime_error(text), code_(code) {}
    // Primary result code, SQLITE_FULL for example.
    int code() const { return code_; }
    // The file is not a database, or not a whole one.
    bool damaged() const;

private:
    int code_;
};

// Makes a database's file where it is missing, mode 0600: SQLite would make it with the umask's, and gives its journals
// the file's mode. Throws when there can be no such file; a link or anything but a plain file in its place is refused.
void makeDatabaseFile(const std::string& path);

// What follows from an error of a database, the number-th at one piece of work. A read that fails shows as damage too,
// so that only a file that is found damaged again by a new connection, and of which all can be read, is damaged.
enum class SqliteAnswer : std::uint8_t { giveUp, tryAgain, moveAside };
SqliteAnswer answerTo(const SqliteError& error, int number, const std::string& path);

enum class SqliteAccess : std::uint8_t { readWrite, readOnly };

// One connection to a database file that exists. One thread at a time.
class SqliteDatabase {
public:
    static constexpr std::chrono::milliseconds kBusyTimeout{1000};

    // busyTimeout: how long a call waits for another connection's lock.
    explicit SqliteDatabase(const std::string& path, std::chrono::milliseconds busyTimeout = kBusyTimeout,
                            SqliteAccess access = SqliteAccess::readWrite);
    ~SqliteDatabase();
    SqliteDatabase(const SqliteDatabase&) = delete;
    SqliteDatabase& operator=(const SqliteDatabase&) = delete;

    void execute(const char* sql);
    // First column of the first row; 0 without one.
    std::int64_t number(const char* sql);
    std::string text(const char* sql);
    // Throws as damage what SQLite's quick check finds first.
    void requireWhole();
    // The file was unlinked or renamed under the open connection.
    bool fileHasMoved();
    // From here on no commit carries the write-ahead journal over into the file, and journalPages() tells how much the
    // last commit left in it.
    void leaveJournalToOthers();
    std::int64_t journalPages() const { return journalPages_; }
    sqlite3* handle() const { return handle_; }

private:
    sqlite3* handle_ = nullptr;
    std::int64_t journalPages_ = 0;
};

// A prepared statement: bind all, step, read columns, reset. Parameters count from 1, columns from 0.
class SqliteStatement {
public:
    SqliteStatement(SqliteDatabase& database, std::string_view sql);
    ~SqliteStatement();
    SqliteStatement(const SqliteStatement&) = delete;
    SqliteStatement& operator=(const SqliteStatement&) = delete;

    SqliteStatement& bind(int parameter, std::int64_t value);
    SqliteStatement& bind(int parameter, double value);
    // Stored as text where the bytes are UTF-8 without NUL, else as they are. The bytes must live until reset().
    SqliteStatement& bindName(int parameter, std::string_view bytes);
    SqliteStatement& bindNull(int parameter);
    // True: there is a row.
    bool step();
    void reset();
    // Runs a statement that gives no rows, ready to be bound again.
    void run();

    std::int64_t integer(int column) const;
    double real(int column) const;
    // As it is stored; nothing for NULL.
    std::variant<std::monostate, std::int64_t, double, std::string> value(int column) const;
    int columns() const;
    std::string name(int column) const;
    // Valid until the next step or reset.
    std::string_view bytes(int column) const;

private:
    void check(int code) const;

    sqlite3* database_;
    sqlite3_stmt* statement_ = nullptr;
};

}  // namespace quorvix::linuxos
