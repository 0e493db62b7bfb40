#pragma once

#include <span>
#include <string_view>

#include "platform/linux/Sqlite.h"

namespace quorvix::linuxos {

// Brings a store that an older version of the daemon has left to the version of this one, a version at a time: steps[0]
// is the SQL that takes version 1 to 2, and so on. Each step is one transaction with its new version, so that a process
// that is killed goes on where it stood. A file of version 0 or of the newest version stays as it is.
//
// Throws SqliteError: damaged() where the file is not what its version says, else what prevented the step (a full disk,
// another connection's lock), which may be tried again on a new connection.
void migrateStore(SqliteDatabase& database, std::span<const std::string_view> steps);

}  // namespace quorvix::linuxos
