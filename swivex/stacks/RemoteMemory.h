#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "swivex/Descriptor.h"
#include "swivex/stacks/MemoryMap.h"

namespace quorvix::swivex::stacks {

// A copy of a piece of a process's memory, with zeros where it has never written.
struct MemoryCopy {
    std::uint64_t start = 0;
    std::vector<std::byte> bytes;

    // False where it doesn't reach.
    bool read(std::uint64_t address, std::uint64_t& word) const;
};

// Reads the memory of another process from outside, without its help. A page that is not in memory is not waited for:
// whoever would have to bring it (a file system made of a program, the process itself by userfaultfd) may never do so.
// Pages that were swapped out are waited for: that is the kernel's own doing.
class RemoteMemory {
public:
    explicit RemoteMemory(pid_t pid);

    // As much of the mapping from the address on as there is, at most `mostBytes`. Empty: nothing could be read.
    MemoryCopy copy(const Mapping& mapping, std::uint64_t address, std::size_t mostBytes) const;

private:
    // Marks which pages may be read; false: it is not known.
    bool findPages(const Mapping& mapping, std::uint64_t firstPage, std::span<bool> mayRead) const;

    pid_t pid_;
    Descriptor pageMap_;
};

}  // namespace quorvix::swivex::stacks
