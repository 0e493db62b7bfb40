#include "swivex/Ring.h"

#include "swivex/MappedRing.h"
#include "swivex/SmallFile.h"
#include "swivex/TextRing.h"

namespace quorvix::swivex {

Outcome<std::unique_ptr<Ring>> openRing(const TraceInstance& instance) {
    if (const auto present = instance.present(); !present) return Problem{present.problem()};
    // Events on another clock can't be laid beside the interval that was asked for.
    const auto clock = readSmallFile(instance.file("trace_clock"));
    if (!clock) return Problem{clock.problem()};
    if (clock->find("[mono]") == std::string::npos) return Problem{"the recorder's clock is not the monotonic one"};
    auto mapped = MappedRing::open(instance);
    return mapped ? std::move(mapped) : TextRing::open(instance);
}

}  // namespace quorvix::swivex
