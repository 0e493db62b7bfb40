#include "simulate/HeldMemory.h"

#include <malloc.h>

#include <cstddef>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// The compiler packages bring it without its header.
extern "C" std::size_t __sanitizer_get_current_allocated_bytes();
#endif

namespace quorvix::simulate {

std::uint64_t heldBytes() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    // The C library's own count stands at 0: a sanitizer brings its allocator.
    return __sanitizer_get_current_allocated_bytes();
#else
    const auto counts = mallinfo2();
    return counts.uordblks + counts.hblkhd;
#endif
}

}  // namespace quorvix::simulate
