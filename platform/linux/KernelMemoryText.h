#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/KernelMemory.h"

namespace quorvix::linuxos {

// Parsers of the texts that tell of the kernel's own memory: from text to values, without a file. Lines that are no
// such line are passed over.

// /proc/slabinfo: every slab cache with the bytes of its slabs.
std::vector<KernelZone> parseSlabInfo(std::string_view text, std::uint64_t pageBytes);

// /proc/vmallocinfo, grouped by the function that allocated. Counted are pages that were taken for the area: not the
// guard page, nor device memory or pages of others that are mapped there.
struct VmallocCaller {
    std::string_view symbol;    // without offset; empty where the kernel has no symbols
    std::string_view module;    // empty: the kernel itself
    std::uint64_t address = 0;  // where there is no symbol
    std::uint64_t sizeBytes = 0;
};
std::vector<VmallocCaller> parseVmallocInfo(std::string_view text, std::uint64_t pageBytes);

// Whether areas of this function are kernel stacks, which meminfo counts on its own.
bool allocatesKernelStacks(std::string_view symbol);
// Whether they are modules' code and data, which the module list counts.
bool allocatesModules(std::string_view symbol);

// /proc/modules, in its order.
struct KernelModule {
    std::string_view name;
    std::uint64_t sizeBytes = 0;
};
std::vector<KernelModule> parseModules(std::string_view text);

}  // namespace quorvix::linuxos
