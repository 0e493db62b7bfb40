#include "memsnapshot/MemorySnapshot.h"

#include "service/Log.h"

namespace quorvix {

void writeMemorySnapshot() { platformLog().standard("Memory snapshots are not built in: none was written"); }

}  // namespace quorvix
