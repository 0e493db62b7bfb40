#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "swivex/stacks/bpf/ThreadRecords.h"

struct swivex_thread_stacks;

namespace quorvix::swivex::stacks {

// The kernel's own view of a process's threads, through a program that runs inside it. Needs its rights (CAP_BPF,
// CAP_PERFMON), a kernel that describes its types, and process ids as the kernel counts them.
class ThreadIterator {
public:
    // 0, or the error number.
    int load();
    // One look at the threads of a process, the main thread first, at most so many. False: nothing was read.
    bool walk(pid_t pid, std::size_t most, std::vector<swivex_thread_record>& records);
    // The names of kernel addresses, empty where there is none.
    std::vector<std::string> names(std::span<const std::uint64_t> addresses);
    // Where the kernel's text starts, known after a walk; 0 when it isn't known.
    std::uint64_t kernelTextStart() const;

private:
    struct Unload {
        void operator()(swivex_thread_stacks* program) const;
    };

    std::unique_ptr<swivex_thread_stacks, Unload> program_;
};

// The letter of /proc/TID/stat.
char stateLetter(const swivex_thread_record& record);

}  // namespace quorvix::swivex::stacks
