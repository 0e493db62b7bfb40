#pragma once

#include "platform/SystemLog.h"

namespace quorvix {

// The one log handle: subsystem "com.norvane.quorvix", empty category. Created once, on first use, from any thread.
const LogHandle& quorvixLog();

// For lines of our own, which are not among the system's given texts: category "platform". Whoever filters on the
// empty category sees the given texts only.
LogHandle platformLog();

}  // namespace quorvix
