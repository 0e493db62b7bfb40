#pragma once

#include <cstdio>
#include <cstdlib>
#include <set>
#include <string_view>
#include <tuple>

#include "platform/linux/KernelMemoryText.h"

// What must hold for any bytes taken as the kernel's list of areas: every caller has a name or an address, stands once,
// and its name is part of the text. True when there was any.
inline bool vmallocInfoHolds(std::string_view bytes) {
    using namespace quorvix::linuxos;
    const auto callers = parseVmallocInfo(bytes, 4096);
    std::set<std::tuple<std::string_view, std::string_view, std::uint64_t>> seen;
    bool holds = true;
    for (const VmallocCaller& caller : callers) {
        holds = holds && (!caller.symbol.empty() || caller.address != 0) &&
                seen.emplace(caller.symbol, caller.module, caller.address).second &&
                (caller.symbol.empty() ||
                 (caller.symbol.data() >= bytes.data() && caller.symbol.data() < bytes.data() + bytes.size()));
    }
    if (!holds) {
        std::fprintf(stderr, "list of areas: a caller that is not in the text, or twice\n");
        std::abort();
    }
    return !callers.empty();
}
