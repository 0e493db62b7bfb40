#pragma once

#include <span>
#include <string>
#include <string_view>

namespace quorvix::report {

// What the kernel functions on a thread's stack say about what it waits for.
struct WaitPlace {
    enum class Kind {
        none,     // nothing that is known here
        event,    // another thread, a message, a timer: something that a program brings about
        lock,     // inside the kernel, held by another thread; uninterruptible without being a device
        io,       // a device or a file system
        stopped,  // a signal's stop, a tracer's
        frozen,   // the freezer of its group
    };
    Kind kind = Kind::none;
    std::string_view text;  // "a lock or condition variable"
    std::string function;   // the one that told
};

// Innermost first; the innermost function that is known tells.
WaitPlace waitPlaceOf(std::span<const std::string> kernelFunctions);

}  // namespace quorvix::report
