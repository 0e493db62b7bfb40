#pragma once

// The chain of calls whose addresses are known, in the program and in its shared library.

struct Truth {
    static constexpr int kMost = 600;
    void* addresses[kMost];  // outermost first: each function's own return address
    int count;
};

using Next = void (*)(Truth*, int);

#define KEEP_FRAME __attribute__((noinline, noclone))
// Behind a call: so that it is no jump.
#define AFTER_CALL asm volatile("" ::: "memory")
#define NOTE_CALLER(truth) (truth)->addresses[(truth)->count++] = __builtin_return_address(0)

extern "C" void sharedLevel(Truth* truth, int depth, Next next);
