#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "swivex/Attributes.h"
#include "swivex/BundleWriter.h"
#include "swivex/Ring.h"

namespace quorvix::swivex {

// The span of time that a dump is about, in CLOCK_MONOTONIC ns.
struct Window {
    std::uint64_t beginNs = 0;
    std::uint64_t endNs = 0;
    std::uint64_t dumpNs = 0;  // events up to here are taken
};

struct CaptureRequest {
    Window window;
    std::int32_t hungThread = 0;  // 0: not known
};

struct Captured {
    // What all CPUs' rings held; both 0: nothing of it.
    std::uint64_t coveredBeginNs = 0;
    std::uint64_t coveredEndNs = 0;
    std::uint64_t events = 0;
    bool hungThreadSeen = false;  // it has an event inside the window
    bool inTime = true;
};

// Takes the window out of the rings and writes it to the file, CPU by CPU. Beside the window's events:
//  - each CPU's last switch before the window, its time set to the window's begin: an idle CPU has no other;
//  - in the attributes, when and how the hung thread last left a CPU before the window: one that sleeps all the time
//    has no event in it.
Captured captureEvents(Ring& ring, const TraceInstance& instance, const CaptureRequest& request,
                       const ClockPair& clocks, PacketBuffer& file, Attributes& attributes, const Deadline& deadline);

// The letter that procfs shows for a raw prev_state of a switch.
char stateLetter(std::int64_t prevState);

}  // namespace quorvix::swivex
