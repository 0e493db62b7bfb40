#pragma once

#include <optional>
#include <string>

#include "platform/TextFormat.h"

namespace quorvix {

// The on-screen debug message (HUD), for internal devices only. On daemonQueue.

// Whether messages are shown at all: an internal build with the preference on.
bool hudMessagesShown();

// Shows the text (at most 99 bytes of it), or clears the message when there is none. Only when messages are shown.
void showHUDMessage(const std::string* text);

// Formats and shows a message; nothing is formatted when messages are not shown.
template <class... Args>
void setHUDMessage(std::type_identity_t<FormatString<FormatArgument<Args>...>> format, const Args&... args) {
    if (!hudMessagesShown()) return;
    const std::string text = formatText<Args...>(format, args...);
    showHUDMessage(&text);
}

// Clears the message.
inline void setHUDMessage(std::nullopt_t) { showHUDMessage(nullptr); }

// Clears the message 2 s from now.
void scheduleHUDClear();

}  // namespace quorvix
