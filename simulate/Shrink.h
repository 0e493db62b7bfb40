#pragma once

#include "simulate/Apart.h"
#include "simulate/Simulation.h"

namespace quorvix::simulate {

// The smallest run that still fails: fewer minutes, then fewer actions, then fewer clients. Any failure counts, a crash
// too: each run is tried in a process of its own. Precondition: `ending` is that of a failed run of `options`.
Options shrink(const Options& options, const Ending& ending);

}  // namespace quorvix::simulate
