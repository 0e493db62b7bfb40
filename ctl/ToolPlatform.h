#pragma once

#include "platform/Platform.h"

namespace quorvix::ctl {

// The daemon's own code on the machine's real services, of which only those that it asks are ever used: none of the
// others opens anything before it is. What it logs and shows goes to the two given, which the result borrows. Made once
// for the process and never destroyed, as in the daemon; call before any thread or signal mask is needed otherwise.
Platform toolPlatform(SystemLog& log, Console& console);

}  // namespace quorvix::ctl
