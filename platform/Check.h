#pragma once

#include <cstdio>
#include <cstdlib>
#include <source_location>

namespace quorvix {

// A check for programming errors that stays on in release builds: a broken promise between our own parts ends the
// process before it does harm. What comes from outside never reaches one.
inline void check(bool holds, const char* promise,
                  const std::source_location& where = std::source_location::current()) noexcept {
    if (holds) return;
    std::fprintf(stderr, "quorvix: %s:%u: broken promise: %s\n", where.file_name(), static_cast<unsigned>(where.line()),
                 promise);
    std::abort();
}

}  // namespace quorvix
