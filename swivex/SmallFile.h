#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "swivex/Outcome.h"

namespace quorvix::swivex {

// The kernel's small text files. All of these block no longer than the kernel takes to make the text.

// The whole file, at most `longest` bytes of it. The path is relative to `folder`, an open folder or AT_FDCWD.
Outcome<std::string> readSmallFile(int folder, const char* path, std::size_t longest = std::size_t{1} << 20);
Outcome<std::string> readSmallFile(const std::string& path, std::size_t longest = std::size_t{1} << 20);
// As above into the caller's buffer, for many files in a row. False: it could not be read.
bool readSmallFileInto(int folder, const char* path, std::string& text, std::size_t longest = std::size_t{1} << 20);
// In one write, as the kernel's control files want it. Empty when it worked, else the system's error text.
Outcome<bool> writeSmallFile(const std::string& path, std::string_view text);

// "NAME: what the system says of this error".
std::string errorText(std::string_view name, int error);

}  // namespace quorvix::swivex
