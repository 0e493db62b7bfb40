#pragma once

#include <cstdarg>
#include <cstdio>
#include <string>

namespace quorvix::simulate {

// The model's own text formatting, so that a fault in the daemon's shows.
__attribute__((format(printf, 1, 2))) inline std::string print(const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    char* text = nullptr;
    const int length = vasprintf(&text, format, arguments);
    va_end(arguments);
    std::string result(text, static_cast<std::size_t>(length));
    std::free(text);
    return result;
}

}  // namespace quorvix::simulate
