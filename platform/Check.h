#pragma once

#include <cstdio>
#include <cstdlib>

namespace quorvix {

// A check for programming errors that stays on in release builds: a broken promise between our own parts ends the
// process before it does harm. What comes from outside never reaches one.
inline void check(bool holds, const char* promise, const char* file = __builtin_FILE(),
                  int line = __builtin_LINE()) noexcept {
    if (holds) return;
    std::fprintf(stderr, "quorvix: %s:%d: broken promise: %s\n", file, line, promise);
    std::abort();
}

}  // namespace quorvix
