#pragma once

#include <cstdint>

namespace quorvix::bench {

// Calls of operator new in this process so far: a program that links this counts its own.
std::uint64_t allocationCount() noexcept;

}  // namespace quorvix::bench
