#include "platform/linux/ProcessNamespace.h"

#include <sys/stat.h>

namespace quorvix::linuxos {

namespace {

// The same number in every kernel: the first namespace has a fixed one.
constexpr ino_t kFirstProcessNamespace = 0xEFFFFFFC;

}  // namespace

bool seesTheKernelsIds() {
    struct stat status {};
    return ::stat("/proc/self/ns/pid", &status) == 0 && status.st_ino == kFirstProcessNamespace;
}

}  // namespace quorvix::linuxos
