#pragma once

#include <cstdint>
#include <span>

#include "swivex/Deadline.h"

namespace quorvix::swivex {

// Whether the descriptor is open for writing.
bool isWritable(int fd);

// Writes all of it. False: it could not, or the reader of a pipe or socket was too slow. Raises no signal, whatever the
// descriptor is, and waits no longer than the deadline.
bool writeAll(int fd, std::span<const std::uint8_t> bytes, const Deadline& deadline);

}  // namespace quorvix::swivex
