#pragma once

#include <cstdint>
#include <string_view>

namespace quorvix::fuzz {

// What two clients do to the daemon, from their sockets to the subsystems: the real connections, decoder, dispatcher,
// regions and rules, on the simulated rest of a device. The first byte picks the clients' pid, the rest is a list of
// steps; ConnectionEntry.cpp says how they are written. What must hold afterwards: nobody is watched, nothing is mapped
// and no file is open once the clients are gone, credits stayed within their bounds, no pid was watched twice, and each
// report stands whole in the spool under a name of one component. With QUORVIX_FUZZ_LOG set, the
// daemon's log is printed. True when any message decoded.
bool connectionHolds(std::string_view bytes);

}  // namespace quorvix::fuzz
