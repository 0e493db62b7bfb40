// A file whose every block takes a known time to read.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "demo/hanging/HelperProcess.h"

namespace quorvix::demo {

// A file system of one file (FUSE), served by a process of its own. The reader waits for the file's pages as for those
// of a slow disk: uninterruptible, and counted as waiting for input by the kernel.
class SlowFile {
public:
    SlowFile() = default;
    ~SlowFile();
    SlowFile(const SlowFile&) = delete;
    SlowFile& operator=(const SlowFile&) = delete;

    // Mounts it for as long as it is open, below the temporary folder. Gives why that can't be had, or an empty text.
    std::string mount(std::chrono::nanoseconds timeOfABlock);
    // Reads a block that was never read before.
    void readOneBlock();

private:
    std::string openBelow(const std::string& folder, std::chrono::nanoseconds timeOfABlock);

    int descriptor_ = -1;
    std::int64_t offset_ = 0;
    std::unique_ptr<HelperProcess> server_;
};

}  // namespace quorvix::demo
