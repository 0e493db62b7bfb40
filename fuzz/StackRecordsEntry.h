#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <vector>

#include "swivex/stacks/CaptureRecords.h"

// The capture as the worker would have written it.
inline std::vector<std::byte> stackRecordsOf(const quorvix::swivex::StackCapture& capture) {
    using namespace quorvix::swivex;
    stacks::RecordRegion region;
    stacks::CaptureWriter writer(region);
    writer.writeSummary(capture);
    for (const Module& module : capture.modules) writer.writeModule(module);
    for (std::uint32_t number = 0; number < capture.threads.size(); ++number) {
        writer.writeThread(number, capture.threads[number]);
    }
    writer.writeEnd();
    return region.published();
}

// What must hold for any bytes taken as what the stacks' worker left: every frame's module is there, the bounds of a
// capture are kept, and written down again it is read as the same. True when it was complete.
inline bool stackRecordsHold(std::span<const std::byte> bytes) {
    using namespace quorvix::swivex;
    const stacks::ReadCapture read = stacks::readCapture(bytes);
    bool holds = read.capture.threads.size() <= kMostStacks;
    for (const ThreadStack& thread : read.capture.threads) {
        holds = holds && thread.user.size() <= kMostFrames && thread.kernel.size() <= kMostFrames;
        for (const UserFrame& frame : thread.user) {
            holds = holds && frame.module >= -1 && frame.module < static_cast<int>(read.capture.modules.size());
        }
    }
    const std::vector<std::byte> written = stackRecordsOf(read.capture);
    const stacks::ReadCapture again = stacks::readCapture(written);
    holds = holds && again.isComplete && stackRecordsOf(again.capture) == written;
    if (!holds) {
        std::fprintf(stderr, "stack records: a capture that is not consistent\n");
        std::abort();
    }
    return read.isComplete;
}
