#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace quorvix::swivex::stacks {

// One line of /proc/PID/maps.
struct Mapping {
    std::uint64_t start = 0;
    std::uint64_t end = 0;
    std::uint64_t fileOffset = 0;
    std::uint64_t inode = 0;
    std::uint32_t deviceMajor = 0;
    std::uint32_t deviceMinor = 0;
    bool isReadable = false;
    bool isExecutable = false;
    // Only of executable mappings, as the process sees it, without the mark of a deleted file.
    std::string path;
};

// What lies where in a process's memory, in the order of addresses.
class MemoryMap {
public:
    // Lines that are not understood are passed over: the text comes from the kernel, the paths in it from anybody.
    static MemoryMap parse(std::string_view text);

    // Null where nothing is mapped.
    const Mapping* find(std::uint64_t address) const;
    const std::vector<Mapping>& mappings() const { return mappings_; }

private:
    std::vector<Mapping> mappings_;
};

}  // namespace quorvix::swivex::stacks
