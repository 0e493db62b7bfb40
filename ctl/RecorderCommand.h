#pragma once

#include <cstdint>
#include <string>

#include "ctl/ExitStatus.h"
#include "ctl/ToolServices.h"

namespace quorvix::ctl {

struct RecorderRequest {
    std::string instance = "swivex";
    std::uint64_t kilobytes = 8192;  // of each CPU
};

// "quorvixctl recorder ...": the flight recorder, from which hang reports get what happened before the hang was seen.
// Switching on what is on, and off what is off, is done and no failure.
class RecorderCommand {
public:
    static constexpr std::uint64_t kLeastKilobytes = 64;
    static constexpr std::uint64_t kMostKilobytes = std::uint64_t{1} << 20;

    explicit RecorderCommand(const ToolServices& services) : services_(services) {}

    ExitStatus on(const RecorderRequest& request, bool asJson) const;
    ExitStatus off(const RecorderRequest& request, bool asJson) const;
    // Done also when it is off; failed when it is on and records nothing of use, or can't be looked at.
    ExitStatus status(const RecorderRequest& request, bool asJson) const;

private:
    ExitStatus fail(const std::string& problem) const;
    bool isName(const std::string& instance) const;

    const ToolServices& services_;
};

}  // namespace quorvix::ctl
