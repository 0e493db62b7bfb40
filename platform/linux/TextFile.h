#pragma once

#include <cstddef>
#include <string>

#include "platform/Result.h"

namespace quorvix::linuxos {

// Opens and reads a file that the kernel or the system keeps, at most limit bytes of it.
Result<std::string> readTextFile(const std::string& path, std::size_t limit);

}  // namespace quorvix::linuxos
