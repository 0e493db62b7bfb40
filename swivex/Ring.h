#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>
#include <vector>

#include "swivex/Deadline.h"
#include "swivex/Event.h"
#include "swivex/Outcome.h"
#include "swivex/TraceInstance.h"

namespace quorvix::swivex {

// What one CPU's ring held when it was loaded.
struct RingHolding {
    bool empty = true;
    std::uint64_t oldestNs = 0;
    std::uint64_t newestNs = 0;       // of the newest piece's beginning at least
    bool armedMark = false;           // the oldest event is the recorder's own mark
    std::uint64_t lostWhileRead = 0;  // pieces that were overwritten while they were copied
    bool leftOut = false;             // older events were there and are not in the copy
    bool cutShort = false;            // the deadline passed before all of it was copied
};

// Reads the recorder's rings without consuming them: a second look finds the same past. One CPU at a time, so that a
// dump's memory does not grow with the number of CPUs.
class Ring {
public:
    using Visit = std::function<void(const Event&)>;

    virtual ~Ring() = default;

    // The word for it in a report.
    virtual std::string_view kind() const = 0;
    virtual std::vector<unsigned> cpus() const = 0;
    // Takes a copy of what this CPU's ring holds from fromNs on, in the place of the CPU before.
    virtual Outcome<RingHolding> load(unsigned cpu, std::uint64_t fromNs, const Deadline& deadline) = 0;
    // Of the CPU that was loaded: its events from fromNs to toNs, both included, oldest first. False: the deadline
    // passed before the end.
    virtual bool visit(std::uint64_t fromNs, std::uint64_t toNs, const Deadline& deadline, const Visit& event) = 0;
    // Its events before a time, piece by piece: the newest piece first, in a piece the oldest event first. Ends when
    // endOfPiece says true.
    virtual void visitEarlier(std::uint64_t beforeNs, const Deadline& deadline, const Visit& event,
                              const std::function<bool()>& endOfPiece) = 0;
};

// The best way that this kernel offers: the mapped ring, else its text. A problem: there is nothing to read.
Outcome<std::unique_ptr<Ring>> openRing(const TraceInstance& instance);

}  // namespace quorvix::swivex
