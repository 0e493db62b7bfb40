#pragma once

#include "simulate/Simulation.h"

namespace quorvix::simulate {

// The smallest run that still fails: fewer minutes, then fewer actions, then fewer clients. Any failure counts.
// Precondition: `outcome` is that of a failed run of `options`.
Options shrink(const Options& options, const Outcome& outcome);

}  // namespace quorvix::simulate
