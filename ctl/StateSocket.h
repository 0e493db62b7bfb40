#pragma once

#include <chrono>
#include <cstddef>
#include <string>

#include "platform/Result.h"

namespace quorvix::ctl {

struct StateLimits {
    std::chrono::milliseconds timeout{5000};
    std::size_t bytes = std::size_t{16} * 1024 * 1024;
};

// Reads the daemon's state: one document, up to end of file. ENOENT or ECONNREFUSED: no daemon listens there. EACCES:
// not root. ETIMEDOUT, EFBIG: over the limits.
Result<std::string> readState(const std::string& socketPath, const StateLimits& limits = {});

}  // namespace quorvix::ctl
