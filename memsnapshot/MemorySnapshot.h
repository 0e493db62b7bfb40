#pragma once

namespace quorvix {

// Writes one memory snapshot report. Not built into the daemon yet: says so in the log. On daemonQueue.
void writeMemorySnapshot();

}  // namespace quorvix
