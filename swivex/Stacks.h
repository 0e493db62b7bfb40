#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace quorvix::swivex {

// The stacks of all threads of a process, as they stand at one moment.
//
// A thread that is off the CPU is not touched: the kernel tells its registers and its kernel stack, its memory is read
// from outside, and it is looked at again to be sure that it did not move in between. Only a thread that runs, and
// every thread where the kernel can't do that, is stopped for as long as its registers and its own stack are copied.
// Unwinding works on the copies.
//
// All of this happens in a short-lived child process which the caller's thread waits for. The child drops its rights
// before it looks into the process's files, and is killed at the deadline: whatever the process or its files do to
// whoever looks at them, it is done to the child. A thread that it had stopped goes on when it ends, and it ends when
// the caller's process does. What it had found until then is in the capture.

// A file that is mapped for execution.
struct Module {
    std::uint64_t start = 0;  // of the executable mapping in the process
    std::uint64_t end = 0;
    std::uint64_t fileOffset = 0;       // of the mapping's start, as in /proc/PID/maps
    std::int64_t loadBias = 0;          // p_vaddr - p_offset of the executable segment; 0 when the file can't be read
    std::uint64_t loadBase = 0;         // pc - loadBase is the address in the ELF file
    std::string path;                   // as the process sees it, without the mark of a deleted file; or "[vdso]"
    std::vector<std::uint8_t> buildId;  // empty when unknown

    friend bool operator==(const Module&, const Module&) = default;
};

struct UserFrame {
    // Inside the instruction that the frame is at: of a caller, the last byte of its call instruction, so that it
    // always belongs to the right function and line. Only the innermost frame, and one that a signal interrupted, has
    // the exact address.
    std::uint64_t pc = 0;
    int module = -1;  // index into the modules; -1: in none

    friend bool operator==(const UserFrame&, const UserFrame&) = default;
};

struct KernelFrame {
    std::uint64_t address = 0;  // a return address; 0 when the kernel tells names only
    std::string symbol;         // "name+0xOFFSET/0xSIZE" as the kernel writes it; empty unless asked for and known

    friend bool operator==(const KernelFrame&, const KernelFrame&) = default;
};

struct ThreadStack {
    pid_t tid = 0;
    std::string name;
    char state = '?';                     // as in /proc/TID/stat, at the capture
    std::vector<UserFrame> user;          // innermost first
    std::vector<KernelFrame> kernel;      // innermost first
    bool stopped = false;                 // it was stopped while its stack was copied
    std::chrono::nanoseconds stopTime{};  // for at most that long
    std::string problem;                  // why there are no or few frames; empty: complete
};

struct StackCapture {
    std::vector<Module> modules;        // those that a frame lies in
    std::vector<ThreadStack> threads;   // the main thread first
    std::string problem;                // of the whole capture; empty: all threads were looked at
    std::string kernelProblem;          // why there are no kernel stacks; empty when there could be
    std::string zeroStopProblem;        // why threads off the CPU were stopped; empty when none was for want of a way
    std::size_t threadsLeftOut = 0;     // that exist and are not in `threads`
    std::uint64_t kernelTextStart = 0;  // the address of _stext; 0 when unknown
};

// For tests and for kernels at fault: `best` is the first, and the second for the threads that the first can't read.
enum class StackRoute : std::uint8_t { best, withoutStopping, stopping };

// More threads than that are left out, the main thread never.
inline constexpr std::size_t kMostStacks = 1024;
// Deeper stacks lack their outermost frames.
inline constexpr std::size_t kMostFrames = 256;

// `pid` as the caller sees it. Returns at the deadline at the latest, give or take the scheduler. One call at a time.
// The caller's process sees the end of a child: SIGCHLD where it handles that; one that waits for any child does no
// harm.
StackCapture captureStacks(pid_t pid, std::chrono::steady_clock::time_point deadline, bool kernelSymbols,
                           StackRoute route = StackRoute::best);

}  // namespace quorvix::swivex
