#pragma once

#include <cstddef>

namespace quorvix::swivex::stacks {

// What a process gives up before it looks into what others made. Each step is taken where it is possible and needs no
// other; none of them calls for memory, and none can be undone.

// From now on it may have so much more memory of its own than it has by now.
void limitMemory(std::size_t moreBytes);
// It is nobody, has no capabilities, and gains none.
void giveUpRights();
// It may read the files that it has open, map memory and end; all other calls fail. False: the kernel can't do that.
bool forbidCalls();

}  // namespace quorvix::swivex::stacks
