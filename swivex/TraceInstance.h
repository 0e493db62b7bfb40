#pragma once

#include <string>
#include <vector>

#include "swivex/EventFormat.h"
#include "swivex/Outcome.h"

namespace quorvix::swivex {

// Where the recorder lives: an instance of the kernel's tracing file system. A value: paths, no open files.
struct TraceInstance {
    std::string root = "/sys/kernel/tracing";
    std::string name = "swivex";

    std::string folder() const { return root + "/instances/" + name; }
    std::string file(std::string_view path) const { return folder() + "/" + std::string(path); }
    std::string cpuFile(unsigned cpu, std::string_view path) const {
        return folder() + "/per_cpu/cpu" + std::to_string(cpu) + "/" + std::string(path);
    }

    // Whether it is there, and in the kernel's own file system; else why not.
    Outcome<bool> present() const;
    // Why it takes no events now, though it is there; empty when it does.
    std::string whyNotRecording() const;
    // The CPUs that it may have a ring for, in order; those that never came up have none.
    std::vector<unsigned> cpus() const;
    // A count of a CPU's `stats` file, such as "overrun"; 0 when it has none.
    std::uint64_t count(unsigned cpu, std::string_view key) const;
    // The formats of the events that are recorded, and that of the marker.
    std::vector<EventFormat> formats() const;
};

// The events that the recorder takes, as "group/name".
const std::vector<std::string>& recordedEvents();

// The marker line that stands first in each CPU's ring: since when that CPU is recorded.
inline constexpr std::string_view kArmedMark = "recorder armed";

}  // namespace quorvix::swivex
