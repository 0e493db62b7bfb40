#pragma once

#include <cstdint>

namespace quorvix::bench {

// What people would pick instead of a socket of their own: messages a second of the same size, on one CPU. Built where
// the libraries are installed.

// Two ends of a socket pair that speak the bus protocol with each other, without a bus.
double systemdBusRate(std::uint32_t messages);
// Through a message bus of our own, started and ended here. 0: the bus program is not installed.
double messageBusRate(std::uint32_t messages);

}  // namespace quorvix::bench
