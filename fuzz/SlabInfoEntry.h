#pragma once

#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "platform/linux/KernelMemoryText.h"

// What must hold for any bytes taken as the kernel's slab list: a zone's name stands in the text and is not empty, and
// there are no more zones than lines. True when there was any.
inline bool slabInfoHolds(std::string_view bytes) {
    using namespace quorvix::linuxos;
    const auto zones = parseSlabInfo(bytes, 4096);
    std::size_t lines = 1;
    for (const char c : bytes) lines += c == '\n';
    bool holds = zones.size() <= lines;
    for (const auto& zone : zones) {
        holds = holds && !zone.name.empty() && bytes.find(zone.name) != std::string_view::npos &&
                zone.name.find('\n') == std::string::npos;
    }
    if (!holds) {
        std::fprintf(stderr, "slab list: a zone that is not in the text\n");
        std::abort();
    }
    return !zones.empty();
}
