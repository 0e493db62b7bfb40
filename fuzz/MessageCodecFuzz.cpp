#include "fuzz/MessageCodecEntry.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    quorvix::fuzz::messageCodecRulesHold(data, size);
    return 0;
}
