#include "platform/linux/StoreMigration.h"

#include <sqlite3.h>

#include <cstdint>
#include <string>

namespace quorvix::linuxos {

void migrateStore(SqliteDatabase& database, std::span<const std::string_view> steps) {
    const std::int64_t found = database.number("PRAGMA user_version");
    if (found <= 0) return;
    for (auto version = static_cast<std::size_t>(found); version <= steps.size(); ++version) {
        const std::string sql = "BEGIN IMMEDIATE; " + std::string(steps[version - 1]) +
                                "; PRAGMA user_version = " + std::to_string(version + 1) + "; COMMIT;";
        try {
            database.execute(sql.c_str());
        } catch (const SqliteError& error) {
            // A table or column that is missing never comes back.
            if (error.code() == SQLITE_ERROR) throw SqliteError(SQLITE_CORRUPT, error.what());
            throw;
        }
    }
}

}  // namespace quorvix::linuxos
