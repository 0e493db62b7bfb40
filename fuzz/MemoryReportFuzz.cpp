#include "fuzz/MemoryReportEntry.h"

#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    memoryReportHolds({reinterpret_cast<const char*>(bytes), size});
    return 0;
}
