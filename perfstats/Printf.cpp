#include "perfstats/Printf.h"

#include <cstdarg>
#include <cstdio>

namespace quorvix {

void appendPrintf(std::string& out, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    va_list again;
    va_copy(again, arguments);
    char line[512];
    const int length = std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    if (length >= 0 && static_cast<std::size_t>(length) < sizeof line) {
        out.append(line, static_cast<std::size_t>(length));
    } else if (length >= 0) {
        const std::size_t start = out.size();
        // One more for the NUL that vsnprintf writes.
        out.resize(start + static_cast<std::size_t>(length) + 1);
        std::vsnprintf(out.data() + start, static_cast<std::size_t>(length) + 1, format, again);
        out.pop_back();
    }
    va_end(again);
}

}  // namespace quorvix
