#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/Services.h"
#include "platform/linux/ProcessTable.h"

namespace quorvix::linuxos {

// Questions about processes. A path is read when it is asked for, on any thread. Usage and names come from the table
// that the last listing without a buffer froze, and belong to one thread at a time: the queue that takes snapshots.
class LinuxProcessQueries : public ProcessQueries {
public:
    using Sources = std::vector<std::unique_ptr<ProcessSource>>;

    // From procfs alone.
    explicit LinuxProcessQueries(std::string procRoot = "/proc");
    // log: where it is said that a source can't be used; null for none.
    explicit LinuxProcessQueries(Sources sources, SystemLog* log = nullptr, std::string procRoot = "/proc");
    // The best that this kernel has.
    explicit LinuxProcessQueries(SystemLog& log);

    // What does not fit is cut at the buffer's end. An executable that was deleted since (an update) keeps its path.
    std::size_t executablePath(std::int32_t pid, std::span<char> buffer) override;

    // -1: the table could not be read. With a buffer: answered from the table that was frozen last.
    std::int32_t listAllPids(std::int32_t* pids, std::int32_t bufferBytes) override;
    Result<void> resourceUsage(std::int32_t pid, ResourceUsage& usage) override;
    Result<std::size_t> processName(std::int32_t pid, std::span<char> buffer) override;

private:
    std::string procRoot_;
    ProcessTable table_;
};

}  // namespace quorvix::linuxos
