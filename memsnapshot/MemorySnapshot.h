#pragma once

namespace quorvix {

// Writes one memory snapshot report: the host's memory counters, every process, the kernel's zones and its wired
// memory, into the cache folder and, when complete, to the report folder. Not synced to the disk. On daemonQueue.
void takeMemorySnapshot();

}  // namespace quorvix
