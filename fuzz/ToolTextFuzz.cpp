#include "fuzz/ToolTextEntry.h"

#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    quorvix::fuzz::toolTextHolds({reinterpret_cast<const char*>(bytes), size});
    return 0;
}
