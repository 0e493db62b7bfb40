#include "fuzz/HangChannelEntry.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    quorvix::fuzz::hangChannelHolds({reinterpret_cast<const char*>(bytes), size});
    return 0;
}
