#pragma once

#include <array>
#include <cstdint>
#include <string_view>

#include "platform/MessageService.h"

namespace quorvix::linuxos {

// The connection errors' own texts.
inline constexpr std::string_view kInvalidText = "Connection invalid";
inline constexpr std::string_view kTerminationText = "Termination imminent";

// "%p" of an object is its address.
inline ObjectId objectIdOf(const void* object) { return {reinterpret_cast<std::uintptr_t>(object)}; }

// "%p" of an event's type: one address a kind, the same throughout the process.
inline ObjectId typeIdOf(MessageEventKind kind) {
    static constexpr std::array<char, 8> types{};
    return objectIdOf(&types[static_cast<std::size_t>(kind)]);
}

}  // namespace quorvix::linuxos
