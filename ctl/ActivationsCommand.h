#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "ctl/ExitStatus.h"
#include "ctl/ToolServices.h"

namespace quorvix::ctl {

// An activation's identifier as the operator types it: decimal, or hexadecimal after 0x or with a letter in it.
std::optional<std::uint64_t> parseActivationID(std::string_view text);

enum class OutputForm : std::uint8_t { text, json, console };

// "activations list|show|stats": what the power log holds. Writes one line to the error stream for whatever goes wrong.
class ActivationsCommand {
public:
    explicit ActivationsCommand(const ToolServices& services) : services_(services) {}

    // The newest first, so many at most.
    ExitStatus list(std::uint32_t limit, OutputForm form) const;
    // Record, processes and memory. Of several activations with this identifier the newest.
    ExitStatus show(const std::string& id, OutputForm form) const;
    // Durations by bundle identifier and type.
    ExitStatus stats(OutputForm form) const;

private:
    const ToolServices& services_;
};

}  // namespace quorvix::ctl
