#pragma once

#include "platform/Json.h"

namespace quorvix {

// The daemon's live state for the operator's tool: settings, watched processes, credits, self-counters. Read only;
// made on daemonQueue.
JsonObject daemonState();

}  // namespace quorvix
