#include "swivex/Ring.h"

#include "swivex/MappedRing.h"

namespace quorvix::swivex {

Outcome<std::unique_ptr<Ring>> openRing(const TraceInstance& instance) {
    if (const auto present = instance.present(); !present) return Problem{present.problem()};
    return MappedRing::open(instance);
}

}  // namespace quorvix::swivex
