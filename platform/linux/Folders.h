#pragma once

#include <sys/types.h>

#include <string>

#include "platform/Result.h"

namespace quorvix::linuxos {

// Makes the folder and those above it where they are missing, each with exactly this mode. Folders that exist are left
// as they are.
Result<void> makeFolders(const std::string& path, mode_t mode);

}  // namespace quorvix::linuxos
