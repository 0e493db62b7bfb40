#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <span>
#include <string>
#include <vector>

#include "swivex/Descriptor.h"
#include "swivex/stacks/MemoryMap.h"

namespace quorvix::swivex::stacks {

// Code that is mapped into the process, opened or copied for as long as the worker may still open anything.
struct ModuleFile {
    const Mapping* mapping = nullptr;
    Descriptor file;               // none: see the problem, or the image
    std::vector<std::byte> image;  // of what the kernel maps without a file
    std::string problem;
};

// Opens the files of all executable mappings as they are, wherever the process has them from: deleted ones, and those
// of a container. Only regular files are opened, so that a device or a pipe notices nothing; and none of a file system
// that another program or machine stands behind, which may never answer.
std::vector<ModuleFile> openModuleFiles(pid_t pid, const MemoryMap& map,
                                        std::chrono::steady_clock::time_point deadline);

}  // namespace quorvix::swivex::stacks
