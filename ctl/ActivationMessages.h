#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/Result.h"

namespace quorvix::ctl {

// An app's activation as a launcher written in shell tells of it. Times are milliseconds since 2001-01-01 00:00:00 UTC.
struct ActivationBegin {
    std::int32_t pid = 0;
    std::string bundleID;
    std::uint64_t startTime = 0;
    bool foreground = true;
    bool launch = true;
};
struct ActivationEnd {
    std::int32_t pid = 0;
    std::string bundleID;
    std::uint64_t endTime = 0;
    bool foreground = true;
    std::int32_t result = 0;
};

// The wall clock in that unit; 0 before that day.
std::uint64_t activationClockNow();

// The daemon's messages of these (docs/message-protocol.md); the one of a begin also holds when it is sent.
std::vector<std::uint8_t> messageOf(const ActivationBegin& begin, std::uint64_t sentAt);
std::vector<std::uint8_t> messageOf(const ActivationEnd& end);

// Sends one message to the daemon and waits until the daemon has read it: it must find the sender alive. ENOENT or
// ECONNREFUSED: no daemon listens there. ETIMEDOUT: it did not read it in time.
Result<void> sendMessage(const std::string& socketPath, const std::vector<std::uint8_t>& message,
                         std::chrono::milliseconds timeout = std::chrono::seconds(5));

}  // namespace quorvix::ctl
