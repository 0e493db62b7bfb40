#include "fuzz/OsReleaseEntry.h"

#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    osReleaseHolds({reinterpret_cast<const char*>(bytes), size});
    return 0;
}
