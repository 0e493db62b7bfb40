#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/KernelMemory.h"

namespace quorvix::linuxos {

// NAME, VERSION_ID and BUILD_ID of an os-release text: lines of assignments with a shell's quoting, of which the last
// one of a name counts.
SystemVersion parseOsRelease(std::string_view text);

// The system version record from os-release, the model from uname. Read anew at each question; no state.
class LinuxSystemInformation final : public SystemInformation {
public:
    // The first file that can be read counts.
    explicit LinuxSystemInformation(std::vector<std::string> files = {"/etc/os-release", "/usr/lib/os-release"})
        : files_(std::move(files)) {}

    SystemVersion version() override;
    std::string machine() override;

private:
    const std::vector<std::string> files_;
};

}  // namespace quorvix::linuxos
