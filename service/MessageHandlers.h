#pragma once

#include <memory>

#include "platform/MessageService.h"

namespace quorvix {

// The client side of the daemon: the endpoint's listener, one connection a client, and the eight commands. Everything
// runs on daemonQueue. Nothing is ever sent back: a bad message is a log line and is dropped, the connection stays.

// The listener's handler.
void handleListenerEvent(const MessageEvent& event);

// A connection's handler.
void handleConnectionEvent(const std::shared_ptr<MessageConnection>& connection, const MessageEvent& event);

// The command dispatcher.
void handleClientMessage(const std::shared_ptr<MessageConnection>& connection,
                         const MessageDictionary& untrustedMessage);

}  // namespace quorvix
