#include "swivex/FlightRecorder.h"

#include <sched.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "swivex/RecorderText.h"
#include "swivex/SmallFile.h"

namespace quorvix::swivex {

namespace {

std::string trimmed(std::string text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
    return text;
}

bool exists(const std::string& path) { return ::access(path.c_str(), F_OK) == 0; }

std::string valueOf(const std::string& path) {
    const auto text = readSmallFile(path);
    return text ? trimmed(*text) : "";
}

}  // namespace

Outcome<FlightRecorder::Armed> FlightRecorder::arm(const Options& options) {
    const bool wasThere = exists(instance_.folder());
    if (!wasThere && ::mkdir(instance_.folder().c_str(), 0700) != 0) {
        const int error = errno;
        if (error == ENOENT || error == EPERM || error == EROFS) {
            return Problem{"no tracing file system is mounted at " + instance_.root};
        }
        return Problem{errorText(instance_.folder(), error)};
    }
    auto armed = setUp(options);
    if (armed) {
        armed->wasOn = wasThere;
    } else if (!wasThere) {
        ::rmdir(instance_.folder().c_str());
    }
    return armed;
}

Outcome<FlightRecorder::Armed> FlightRecorder::setUp(const Options& options) {
    if (const auto present = instance_.present(); !present) return Problem{present.problem()};
    const auto set = [&](const char* name, const std::string& value) -> std::string {
        const auto written = writeSmallFile(instance_.file(name), value);
        return written ? "" : written.problem();
    };
    // Changing clock or size clears the ring: done only where it must be.
    const bool otherClock = chosenOf(valueOf(instance_.file("trace_clock"))) != "mono";
    // The kernel rounds up to whole pages, and counts what a page holds beside its head.
    const std::uint64_t size = leadingNumber(valueOf(instance_.file("buffer_size_kb")));
    const bool otherSize = size < options.kilobytes || size > options.kilobytes + options.kilobytes / 100 + 16;
    if (otherClock || otherSize) {
        if (auto problem = set("tracing_on", "0"); !problem.empty()) return Problem{problem};
    }
    if (otherClock) {
        if (auto problem = set("trace_clock", "mono"); !problem.empty()) return Problem{problem};
    }
    if (otherSize) {
        if (auto problem = set("buffer_size_kb", std::to_string(options.kilobytes)); !problem.empty()) {
            return Problem{problem};
        }
    }
    if (auto problem = set("options/overwrite", "1"); !problem.empty()) return Problem{problem};

    if (valueOf(instance_.file("tracing_on")) != "1") {
        // Before any event, so that the marks stand first.
        if (auto problem = set("events/enable", "0"); !problem.empty()) return Problem{problem};
        if (auto problem = set("tracing_on", "1"); !problem.empty()) return Problem{problem};
        markEveryCpu();
    }
    Armed armed;
    for (const std::string& event : recordedEvents()) {
        if (!exists(instance_.file("events/" + event))) {
            armed.notRecorded.push_back(event);
            continue;
        }
        if (auto problem = set(("events/" + event + "/enable").c_str(), "1"); !problem.empty()) return Problem{problem};
    }
    if (!armed.notRecorded.empty() && armed.notRecorded.front() == recordedEvents().front()) {
        return Problem{"this kernel does not record " + armed.notRecorded.front()};
    }
    return armed;
}

void FlightRecorder::markEveryCpu() const {
    // A CPU that stays idle has no event by which to tell since when it is recorded. One that can't be run on (offline,
    // not ours) goes without.
    cpu_set_t before;
    if (::sched_getaffinity(0, sizeof before, &before) != 0) return;
    for (const unsigned cpu : instance_.cpus()) {
        cpu_set_t one;
        CPU_ZERO(&one);
        if (cpu >= CPU_SETSIZE) continue;
        CPU_SET(cpu, &one);
        if (::sched_setaffinity(0, sizeof one, &one) != 0) continue;
        (void)!!writeSmallFile(instance_.file("trace_marker"), std::string(kArmedMark) + "\n");
    }
    ::sched_setaffinity(0, sizeof before, &before);
}

Outcome<bool> FlightRecorder::disarm(double patienceSeconds) {
    if (!exists(instance_.folder())) {
        if (exists(instance_.root + "/instances")) return false;
        return Problem{"no tracing file system is mounted at " + instance_.root};
    }
    if (const auto present = instance_.present(); !present) return Problem{present.problem()};
    (void)!!writeSmallFile(instance_.file("tracing_on"), "0");
    const timespec pause{0, 20'000'000};
    for (double waited = 0;; waited += 0.02) {
        if (::rmdir(instance_.folder().c_str()) == 0) return true;
        // Busy while a dump has a ring mapped or somebody has its marker open.
        if (errno != EBUSY || waited >= patienceSeconds) {
            const int error = errno;
            (void)!!writeSmallFile(instance_.file("tracing_on"), "1");
            // What happened meanwhile is not in the ring: a dump tells by the mark.
            markEveryCpu();
            return Problem{errorText(instance_.folder(), error)};
        }
        ::nanosleep(&pause, nullptr);
    }
}

Outcome<FlightRecorder::Status> FlightRecorder::status() const {
    Status status;
    if (!exists(instance_.folder())) {
        if (exists(instance_.root + "/instances")) return status;
        return Problem{"no tracing file system is mounted at " + instance_.root +
                       ", or this user may not look into it"};
    }
    if (const auto present = instance_.present(); !present) return Problem{present.problem()};
    status.on = true;
    status.clock = chosenOf(valueOf(instance_.file("trace_clock")));
    status.kilobytes = leadingNumber(valueOf(instance_.file("buffer_size_kb")));
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    status.nowSeconds = static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
    for (const std::string& event : recordedEvents()) {
        const bool on = valueOf(instance_.file("events/" + event + "/enable")).starts_with('1');
        (on ? status.events : status.notRecorded).push_back(event);
    }
    if (valueOf(instance_.file("tracing_on")) != "1") {
        status.problem = "recording is switched off in " + instance_.file("tracing_on");
    } else if (status.clock != "mono") {
        status.problem = "the clock is " + status.clock + " and not mono";
    } else if (status.events.empty() || status.events.front() != recordedEvents().front()) {
        status.problem = recordedEvents().front() + " is not recorded";
    }
    for (const unsigned number : instance_.cpus()) {
        Cpu cpu;
        cpu.number = number;
        cpu.entries = instance_.count(number, "entries");
        cpu.overrun = instance_.count(number, "overrun");
        cpu.lost = instance_.count(number, "commit overrun") + instance_.count(number, "dropped events");
        const auto stats = readSmallFile(instance_.cpuFile(number, "stats"));
        if (stats && cpu.entries > 0) cpu.oldestSeconds = oldestSecondsOf(*stats);
        status.cpus.push_back(cpu);
    }
    return status;
}

}  // namespace quorvix::swivex
