#pragma once

namespace quorvix::linuxos {

// Whether ids of processes and threads are here what they are for the kernel, whose events and programs know no others.
// In a process namespace of its own, as in a container, they are not.
bool seesTheKernelsIds();

}  // namespace quorvix::linuxos
