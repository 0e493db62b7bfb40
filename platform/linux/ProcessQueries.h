#pragma once

#include <string>

#include "platform/Services.h"

namespace quorvix::linuxos {

// Questions about one process, answered from procfs. Has no state; callable from any thread.
class LinuxProcessQueries : public ProcessQueries {
public:
    explicit LinuxProcessQueries(std::string procRoot = "/proc") : procRoot_(std::move(procRoot)) {}

    // What does not fit is cut at the buffer's end. An executable that was deleted since (an update) keeps its path.
    std::size_t executablePath(std::int32_t pid, std::span<char> buffer) override;

private:
    std::string procRoot_;
};

}  // namespace quorvix::linuxos
