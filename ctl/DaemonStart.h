#pragma once

#include "platform/Result.h"

namespace quorvix::ctl {

// Asks the service manager to start the daemon, and waits until that has an end. ENOSYS: none that is known runs here.
// EIO: it could not be started; the manager has said why on standard error.
Result<void> startDaemon();

}  // namespace quorvix::ctl
